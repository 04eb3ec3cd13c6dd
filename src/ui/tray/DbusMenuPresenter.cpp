#include "ui/tray/DbusMenuPresenter.h"

#include "platform/GlibOwners.h"

#include <libdbusmenu-glib/client.h>
#include <libdbusmenu-glib/menuitem.h>
#include <libdbusmenu-glib/server.h>

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
           row.action == MenuItem::Action::toggleLaunchAtLogin;
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
    glib::Object<DbusmenuServer> server;
    Item root{dbusmenu_menuitem_new()};
    std::vector<Item> topItems;
    std::vector<Item> eventItems;
    DbusmenuMenuitem* eventsParent = nullptr; // one of topItems

    void clearEvents() {
        if (eventsParent != nullptr) {
            for (auto& item : eventItems) {
                dbusmenu_menuitem_child_delete(eventsParent, item.get());
            }
        }
        eventItems.clear();
    }
};

DbusMenuPresenter::DbusMenuPresenter(const std::string& objectPath, Actions actions)
    : impl_(std::make_unique<Impl>()) {
    impl_->actions = std::move(actions);
    impl_->server.reset(dbusmenu_server_new(objectPath.c_str()));
    dbusmenu_menuitem_property_set(impl_->root.get(), DBUSMENU_MENUITEM_PROP_CHILD_DISPLAY,
                                   DBUSMENU_MENUITEM_CHILD_DISPLAY_SUBMENU);
    dbusmenu_server_set_root(impl_->server.get(), impl_->root.get());
}

DbusMenuPresenter::~DbusMenuPresenter() {
    impl_->clearEvents();
    for (auto& item : impl_->topItems) {
        dbusmenu_menuitem_child_delete(impl_->root.get(), item.get());
    }
}

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
        case MenuItem::Action::quit:
            onClicked(item.get(), [this] { impl_->actions.quit(); });
            break;
        default:
            break;
        }
        if (row.hasSubmenu) {
            impl_->eventsParent = item.get();
        }
        dbusmenu_menuitem_child_append(impl_->root.get(), item.get());
        impl_->topItems.push_back(std::move(item));
    }
}

void DbusMenuPresenter::rebuildEventsMenu(const std::vector<MenuItem>& rows) {
    impl_->clearEvents();
    if (impl_->eventsParent == nullptr) {
        return;
    }
    for (std::size_t i = 0; i < rows.size(); ++i) {
        Item item = makeItem(rows[i]);
        if (rows[i].action == MenuItem::Action::updateSelectedEvent) {
            onClicked(item.get(), [this, i] { impl_->actions.updateSelectedEvent(i); });
        }
        dbusmenu_menuitem_child_append(impl_->eventsParent, item.get());
        impl_->eventItems.push_back(std::move(item));
    }
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
