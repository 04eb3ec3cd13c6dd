#include "ui/tray/DbusMenuPresenter.h"

#include "platform/GlibOwners.h"

#include <libdbusmenu-glib/client.h>
#include <libdbusmenu-glib/menuitem.h>
#include <libdbusmenu-glib/server.h>
#include <optional>

namespace almanor {

namespace {

using Item = glib::Object<DbusmenuMenuitem>;

// Connects `clicked` to the row's activation; the row owns the function from then on.
void onClicked(DbusmenuMenuitem* item, std::function<void()> clicked) {
    auto* heap = new std::function<void()>(std::move(clicked));
    g_signal_connect_data(
        item, DBUSMENU_MENUITEM_SIGNAL_ITEM_ACTIVATED,
        G_CALLBACK(+[](DbusmenuMenuitem*, guint, gpointer data) {
            (*static_cast<std::function<void()>*>(data))();
        }),
        heap, [](gpointer data, GClosure*) { delete static_cast<std::function<void()>*>(data); },
        GConnectFlags(0));
}

bool markable(const MenuItem& row) {
    return row.action == MenuItem::Action::updateSelectedEvent ||
           row.action == MenuItem::Action::toggleLaunchAtLogin ||
           row.action == MenuItem::Action::toggleNotifyOnTheDay;
}

void setMark(DbusmenuMenuitem* item, bool on) {
    dbusmenu_menuitem_property_set_int(item, DBUSMENU_MENUITEM_PROP_TOGGLE_STATE,
                                       on ? DBUSMENU_MENUITEM_TOGGLE_STATE_CHECKED
                                          : DBUSMENU_MENUITEM_TOGGLE_STATE_UNCHECKED);
}

Item makeItem(const MenuItem& row) {
    Item item(dbusmenu_menuitem_new());
    if (row.separator) {
        dbusmenu_menuitem_property_set(item.get(), DBUSMENU_MENUITEM_PROP_TYPE,
                                       DBUSMENU_CLIENT_TYPES_SEPARATOR);
        return item;
    }
    dbusmenu_menuitem_property_set(item.get(), DBUSMENU_MENUITEM_PROP_LABEL,
                                   DbusMenuPresenter::label(row.title).c_str());
    if (markable(row)) {
        dbusmenu_menuitem_property_set(item.get(), DBUSMENU_MENUITEM_PROP_TOGGLE_TYPE,
                                       DBUSMENU_MENUITEM_TOGGLE_CHECK);
        setMark(item.get(), row.state);
    }
    if (row.hasSubmenu) {
        dbusmenu_menuitem_property_set(item.get(), DBUSMENU_MENUITEM_PROP_CHILD_DISPLAY,
                                       DBUSMENU_MENUITEM_CHILD_DISPLAY_SUBMENU);
    } else if (row.action == MenuItem::Action::none) {
        dbusmenu_menuitem_property_set_bool(item.get(), DBUSMENU_MENUITEM_PROP_ENABLED, FALSE);
    }
    return item;
}

} // namespace

struct DbusMenuPresenter::Impl {
    Actions actions;
    Item root{dbusmenu_menuitem_new()};
    glib::Object<DbusmenuServer> server; // goes before the tree it serves
    std::vector<Item> topItems;
    std::vector<Item> eventItems;
    std::optional<std::size_t> eventsRow; // the top row that holds the events submenu
    MenuItem eventsRowItem;
    bool filled = false; // the events row has had rows

    // A panel about to show a menu asks first (AboutToShow) or says so after (the "opened"
    // event); either way the rows it may show are wanted now.
    void watchShowing(DbusmenuMenuitem* item) {
        g_signal_connect(item, DBUSMENU_MENUITEM_SIGNAL_ABOUT_TO_SHOW,
                         G_CALLBACK(+[](DbusmenuMenuitem*, gpointer data) -> gboolean {
                             static_cast<Impl*>(data)->aboutToShow();
                             return FALSE;
                         }),
                         this);
        g_signal_connect(item, DBUSMENU_MENUITEM_SIGNAL_EVENT "::" DBUSMENU_MENUITEM_EVENT_OPENED,
                         G_CALLBACK(+[](DbusmenuMenuitem*, const gchar*, GVariant*, guint,
                                        gpointer data) -> gboolean {
                             static_cast<Impl*>(data)->aboutToShow();
                             return FALSE;
                         }),
                         this);
    }

    void aboutToShow() {
        if (actions.aboutToShow) {
            actions.aboutToShow();
        }
    }

    // Makes the rows under `parent`; prepending from the last does not walk the list.
    std::vector<Item> make(DbusmenuMenuitem* parent, const std::vector<MenuItem>& rows) {
        std::vector<Item> items(rows.size());
        for (std::size_t i = rows.size(); i-- > 0;) {
            items[i] = makeItem(rows[i]);
            if (rows[i].action == MenuItem::Action::updateSelectedEvent) {
                onClicked(items[i].get(), [this, i] { actions.updateSelectedEvent(i); });
            }
            dbusmenu_menuitem_child_prepend(parent, items[i].get());
        }
        return items;
    }
};

DbusMenuPresenter::DbusMenuPresenter(const std::string& objectPath, Actions actions)
    : impl_(std::make_unique<Impl>()) {
    impl_->actions = std::move(actions);
    impl_->server.reset(dbusmenu_server_new(objectPath.c_str()));
    dbusmenu_menuitem_property_set(impl_->root.get(), DBUSMENU_MENUITEM_PROP_CHILD_DISPLAY,
                                   DBUSMENU_MENUITEM_CHILD_DISPLAY_SUBMENU);
    dbusmenu_server_set_root(impl_->server.get(), impl_->root.get());
    impl_->watchShowing(impl_->root.get());
}

// The rows go with the root, all at once; the server lets go of the tree first.
DbusMenuPresenter::~DbusMenuPresenter() = default;

std::string DbusMenuPresenter::label(const std::string& title) {
    std::string out;
    out.reserve(title.size());
    for (char c : title) {
        out += c;
        if (c == '_') {
            out += '_';
        }
    }
    return out;
}

void DbusMenuPresenter::buildMenu(const std::vector<MenuItem>& menu) {
    for (std::size_t i = 0; i < menu.size(); ++i) {
        const MenuItem& row = menu[i];
        Item item = makeItem(row);
        switch (row.action) {
        case MenuItem::Action::manageEvents:
            onClicked(item.get(), [this] { impl_->actions.manageEvents(); });
            break;
        case MenuItem::Action::toggleLaunchAtLogin:
            onClicked(item.get(), [this, i] { impl_->actions.toggleLaunchAtLogin(i); });
            break;
        case MenuItem::Action::toggleNotifyOnTheDay:
            onClicked(item.get(), [this, i] { impl_->actions.toggleNotifyOnTheDay(i); });
            break;
        case MenuItem::Action::quit:
            onClicked(item.get(), [this] { impl_->actions.quit(); });
            break;
        default:
            break;
        }
        if (row.hasSubmenu) {
            impl_->eventsRow = i;
            impl_->eventsRowItem = row;
            impl_->watchShowing(item.get());
        }
        dbusmenu_menuitem_child_append(impl_->root.get(), item.get());
        impl_->topItems.push_back(std::move(item));
    }
}

void DbusMenuPresenter::rebuildEventsMenu(const std::vector<MenuItem>& rows) {
    Impl& d = *impl_;
    if (!d.eventsRow) {
        return;
    }
    const std::size_t at = *d.eventsRow;
    if (!d.filled) {
        // The first rows go under the row the panel knows, which may be opening its submenu
        // right now: a row put in its place would close it.
        d.eventItems = d.make(d.topItems[at].get(), rows);
        d.filled = true;
        return;
    }
    // Later ones are put together under a row of their own, out of the server's sight, which
    // then takes the shown row's place: the server follows one change instead of one per row.
    Item parent = makeItem(d.eventsRowItem);
    auto items = d.make(parent.get(), rows);
    dbusmenu_menuitem_child_delete(d.root.get(), d.topItems[at].get());
    dbusmenu_menuitem_child_add_position(d.root.get(), parent.get(), guint(at));
    d.topItems[at] = std::move(parent);
    d.eventItems = std::move(items);
}

void DbusMenuPresenter::setEventsMenuState(std::size_t index, bool on) {
    if (index < impl_->eventItems.size()) {
        setMark(impl_->eventItems[index].get(), on);
    }
}

void DbusMenuPresenter::setMenuState(std::size_t index, bool on) {
    if (index < impl_->topItems.size()) {
        setMark(impl_->topItems[index].get(), on);
    }
}

} // namespace almanor
