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
    Item root{dbusmenu_menuitem_new()};
    glib::Object<DbusmenuServer> server; // goes before the tree it serves
    std::vector<Item> topItems;
    std::vector<Item> eventItems;
    std::optional<std::size_t> eventsRow; // the top row that holds the events submenu
    MenuItem eventsRowItem;

    // A submenu being put together under a row of its own, out of the server's sight; it takes
    // the shown row's place in one step, so the server follows one change instead of one per row.
    struct Draft {
        std::vector<MenuItem> rows;
        Item parent;
        std::vector<Item> items;
        std::size_t left = 0; // rows still to make; they are made from the last up
    };
    // The first submenu is made a slice at a time once the main loop runs, so that the title
    // reaches the panel first. Later ones are made at once: a click on a shown row must reach the
    // row it was made for.
    std::optional<Draft> firstDraft;
    unsigned firstDraftSource = 0;
    static constexpr std::size_t firstDraftSlice = 100; // rows made between two looks at the bus
    bool shown = false;                                 // a submenu has taken the row's place

    ~Impl() {
        if (firstDraftSource != 0) {
            g_source_remove(firstDraftSource);
        }
    }

    Draft draft(const std::vector<MenuItem>& rows) {
        return Draft{rows, makeItem(eventsRowItem), std::vector<Item>(rows.size()), rows.size()};
    }

    // Makes up to `count` more rows of the draft; prepending does not walk the list.
    void make(Draft& draft, std::size_t count) {
        for (; draft.left > 0 && count > 0; --count) {
            std::size_t i = --draft.left;
            draft.items[i] = makeItem(draft.rows[i]);
            if (draft.rows[i].action == MenuItem::Action::updateSelectedEvent) {
                onClicked(draft.items[i].get(), [this, i] { actions.updateSelectedEvent(i); });
            }
            dbusmenu_menuitem_child_prepend(draft.parent.get(), draft.items[i].get());
        }
    }

    void show(Draft& draft) {
        const std::size_t at = *eventsRow;
        dbusmenu_menuitem_child_delete(root.get(), topItems[at].get());
        dbusmenu_menuitem_child_add_position(root.get(), draft.parent.get(), guint(at));
        topItems[at] = std::move(draft.parent);
        eventItems = std::move(draft.items);
        shown = true;
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
        case MenuItem::Action::quit:
            onClicked(item.get(), [this] { impl_->actions.quit(); });
            break;
        default:
            break;
        }
        if (row.hasSubmenu) {
            impl_->eventsRow = i;
            impl_->eventsRowItem = row;
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
    if (d.shown) {
        auto draft = d.draft(rows);
        d.make(draft, draft.left);
        d.show(draft);
        return;
    }
    // The first one, made once the main loop runs; begun again when replaced meanwhile.
    d.firstDraft = d.draft(rows);
    if (d.firstDraftSource == 0) {
        d.firstDraftSource = g_idle_add_full(
            G_PRIORITY_DEFAULT_IDLE,
            [](gpointer data) -> gboolean {
                auto& impl = *static_cast<Impl*>(data);
                impl.make(*impl.firstDraft, Impl::firstDraftSlice);
                if (impl.firstDraft->left > 0) {
                    return G_SOURCE_CONTINUE;
                }
                impl.show(*impl.firstDraft);
                impl.firstDraft.reset();
                impl.firstDraftSource = 0;
                return G_SOURCE_REMOVE;
            },
            &d, nullptr);
    }
}

void DbusMenuPresenter::setEventsMenuState(std::size_t index, bool on) {
    Impl& d = *impl_;
    if (d.firstDraft) {
        if (index < d.firstDraft->rows.size()) {
            d.firstDraft->rows[index].state = on;
            if (d.firstDraft->items[index]) {
                setMark(d.firstDraft->items[index].get(), on);
            }
        }
        return;
    }
    if (index < d.eventItems.size()) {
        setMark(d.eventItems[index].get(), on);
    }
}

void DbusMenuPresenter::setMenuState(std::size_t index, bool on) {
    if (index < impl_->topItems.size()) {
        setMark(impl_->topItems[index].get(), on);
    }
}

} // namespace almanor
