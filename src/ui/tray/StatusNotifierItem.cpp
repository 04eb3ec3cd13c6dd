#include "ui/tray/StatusNotifierItem.h"

#include "platform/GlibOwners.h"
#include "platform/Log.h"
#include "platform/Translation.h"
#include "shell/PanelIcon.h"
#include "ui/tray/CountIcons.h"

#include <gio/gio.h>
#include <initializer_list>

namespace almanor {

namespace {

constexpr const char* itemInterface = "org.kde.StatusNotifierItem";
constexpr const char* watcherName = "org.kde.StatusNotifierWatcher";
constexpr const char* watcherPath = "/StatusNotifierWatcher";
// The application indicators' service: its panels draw labels and read icons by name only.
constexpr const char* labelHostName = "org.ayatana.indicator.application";
// Each call to the watcher ends within this.
constexpr int watcherTimeoutMs = 10'000;
// A panel that starts with the session has its watcher up by then.
constexpr unsigned watcherGraceSeconds = 5;

// What panels read: the properties and signals of the application indicators that panels know
// (label, guide, ordering index), and those that panels without labels read (ToolTip, ItemIsMenu).
constexpr const char* introspection = R"xml(<node>
  <interface name="org.kde.StatusNotifierItem">
    <method name="Scroll">
      <arg type="i" name="delta" direction="in"/>
      <arg type="s" name="orientation" direction="in"/>
    </method>
    <method name="SecondaryActivate">
      <arg type="i" name="x" direction="in"/>
      <arg type="i" name="y" direction="in"/>
    </method>
    <method name="XAyatanaSecondaryActivate">
      <arg type="u" name="timestamp" direction="in"/>
    </method>
    <signal name="NewIcon"/>
    <signal name="NewIconThemePath"><arg type="s" name="icon_theme_path"/></signal>
    <signal name="NewAttentionIcon"/>
    <signal name="NewStatus"><arg type="s" name="status"/></signal>
    <signal name="XAyatanaNewLabel">
      <arg type="s" name="label"/>
      <arg type="s" name="guide"/>
    </signal>
    <signal name="NewTitle"/>
    <signal name="NewToolTip"/>
    <property type="s" name="Id" access="read"/>
    <property type="s" name="Category" access="read"/>
    <property type="s" name="Status" access="read"/>
    <property type="s" name="IconName" access="read"/>
    <property type="a(iiay)" name="IconPixmap" access="read"/>
    <property type="s" name="IconAccessibleDesc" access="read"/>
    <property type="s" name="AttentionIconName" access="read"/>
    <property type="s" name="AttentionAccessibleDesc" access="read"/>
    <property type="s" name="Title" access="read"/>
    <property type="s" name="IconThemePath" access="read"/>
    <property type="o" name="Menu" access="read"/>
    <property type="s" name="XAyatanaLabel" access="read"/>
    <property type="s" name="XAyatanaLabelGuide" access="read"/>
    <property type="u" name="XAyatanaOrderingIndex" access="read"/>
    <property type="(sa(iiay)ss)" name="ToolTip" access="read"/>
    <property type="b" name="ItemIsMenu" access="read"/>
  </interface>
</node>)xml";

using NodeInfo = glib::Owner<GDBusNodeInfo, g_dbus_node_info_unref>;

} // namespace

struct StatusNotifierItem::Impl {
    glib::Object<GDBusConnection> connection;
    Options options;
    std::string menuPath;
    NodeInfo node;
    unsigned registration = 0;
    unsigned watch = 0;
    unsigned labelHostWatch = 0;
    bool labelHost = false;
    unsigned grace = 0; // the wait for a watcher before the user is told
    bool watcherMissingSaid = false;
    glib::Object<GCancellable> cancellable{g_cancellable_new()};

    std::string title = "Almanor"; // until the first title
    std::string label;
    std::optional<int> days;
    std::string countText; // drawn in pixmap; empty for the plain icon
    glib::Variant pixmap{g_variant_ref_sink(noPixmap())};

    static GVariant* noPixmap() {
        return g_variant_new_array(G_VARIANT_TYPE("(iiay)"), nullptr, 0);
    }

    GVariant* toolTip() const {
        return g_variant_new("(s@a(iiay)ss)", "", noPixmap(), title.c_str(), "");
    }

    GVariant* property(std::string_view name) const {
        auto text = [](const std::string& s) { return g_variant_new_string(s.c_str()); };
        if (name == "Id") {
            return text(options.id);
        } else if (name == "Category") {
            return g_variant_new_string("ApplicationStatus");
        } else if (name == "Status") {
            return g_variant_new_string("Active");
        } else if (name == "IconName") {
            return text(iconName());
        } else if (name == "IconPixmap") {
            return g_variant_ref(pixmap.get());
        } else if (name == "IconAccessibleDesc") {
            return text(label);
        } else if (name == "AttentionIconName" || name == "AttentionAccessibleDesc" ||
                   name == "XAyatanaLabelGuide") {
            return g_variant_new_string("");
        } else if (name == "Title") {
            return text(title);
        } else if (name == "IconThemePath") {
            return g_variant_new_string(options.iconThemePath.c_str());
        } else if (name == "Menu") {
            return g_variant_new_object_path(menuPath.c_str());
        } else if (name == "XAyatanaLabel") {
            return text(label);
        } else if (name == "XAyatanaOrderingIndex") {
            return g_variant_new_uint32(0);
        } else if (name == "ToolTip") {
            return toolTip();
        } else if (name == "ItemIsMenu") {
            return g_variant_new_boolean(TRUE);
        }
        return nullptr;
    }

    void emit(const char* signal, GVariant* parameters = nullptr) {
        if (registration == 0) {
            if (parameters != nullptr) {
                glib::Variant dropped(g_variant_ref_sink(parameters)); // floating: sunk, freed
            }
            return;
        }
        // A connection that is gone has no one to tell.
        g_dbus_connection_emit_signal(connection.get(), nullptr, options.objectPath.c_str(),
                                      itemInterface, signal, parameters, nullptr);
    }

    // Panels that follow the standard properties signal learn of the change too.
    void propertiesChanged(std::initializer_list<const char*> names) {
        if (registration == 0) {
            return;
        }
        GVariantBuilder changed;
        g_variant_builder_init(&changed, G_VARIANT_TYPE("a{sv}"));
        for (const char* name : names) {
            g_variant_builder_add(&changed, "{sv}", name, property(name));
        }
        g_dbus_connection_emit_signal(connection.get(), nullptr, options.objectPath.c_str(),
                                      "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                      g_variant_new("(sa{sv}as)", itemInterface, &changed, nullptr),
                                      nullptr);
    }

    void registerWithWatcher() {
        g_dbus_connection_call(
            connection.get(), watcherName, watcherPath, watcherName, "RegisterStatusNotifierItem",
            g_variant_new("(s)", options.objectPath.c_str()), nullptr,
            G_DBUS_CALL_FLAGS_NO_AUTO_START, watcherTimeoutMs, cancellable.get(),
            [](GObject* source, GAsyncResult* result, gpointer) {
                glib::Error error;
                glib::Variant reply(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result,
                                                                  glib::out(error)));
                // A cancelled call belongs to an item that is gone: nothing of it may be touched.
                if (error && !g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
                    Log::error(std::string("Failed to register the status item with the panel: ") +
                               error->message);
                }
            },
            nullptr);
    }

    // Hosts take a name they find before the pixels: with the count drawn the name is empty, except
    // for the hosts that read no pixels, which show the application's icon beside the label.
    std::string iconName() const { return countText.empty() || labelHost ? options.id : ""; }

    void setLabelHost(bool present) {
        if (labelHost != present) {
            labelHost = present;
            emit("NewIcon");
            propertiesChanged({"IconName"});
        }
    }

    void updateIcon() {
        std::string text;
        if (days && options.iconShowsCount && options.iconShowsCount()) {
            text = panelIcon::countText(*days);
        }
        if (text == countText) {
            return;
        }
        countText = std::move(text);
        GVariant* drawn = noPixmap();
        if (!countText.empty()) {
            GVariantBuilder icons;
            g_variant_builder_init(&icons, G_VARIANT_TYPE("a(iiay)"));
            for (int size : countIcon::sizes) {
                auto bytes = countIcon::pixels(countText, size);
                g_variant_builder_add(
                    &icons, "(ii@ay)", size, size,
                    g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1));
            }
            drawn = g_variant_builder_end(&icons);
        }
        pixmap = glib::Variant(g_variant_ref_sink(drawn));
        emit("NewIcon");
        propertiesChanged({"IconName", "IconPixmap"});
    }

    // Once per start, when no watcher has come within the grace: a line, and a notification
    // naming what to install. The watch goes on, and a watcher that comes later gets the item.
    void awaitWatcher() {
        if (watcherMissingSaid || grace != 0) {
            return;
        }
        grace = g_timeout_add_seconds(
            watcherGraceSeconds,
            [](gpointer data) {
                auto& self = *static_cast<Impl*>(data);
                self.grace = 0;
                self.watcherMissingSaid = true;
                Log::warning(_("No panel shows status items yet (no StatusNotifierWatcher); the "
                               "item appears when one starts"));
                if (self.options.notify) {
                    self.options.notify(
                        _("No panel shows Almanor"),
                        _("Almanor's day count needs a panel that shows status items. On GNOME, "
                          "install the AppIndicator and KStatusNotifierItem Support extension "
                          "(package gnome-shell-extension-appindicator) and log in again."));
                }
                return G_SOURCE_REMOVE;
            },
            this);
    }
};

StatusNotifierItem::StatusNotifierItem(GDBusConnection* connection, Options options)
    : impl_(std::make_unique<Impl>()) {
    impl_->connection = glib::ref(connection);
    impl_->options = std::move(options);
    impl_->menuPath = impl_->options.objectPath + "/Menu";
}

StatusNotifierItem::~StatusNotifierItem() {
    g_cancellable_cancel(impl_->cancellable.get());
    if (impl_->watch != 0) {
        g_bus_unwatch_name(impl_->watch);
    }
    if (impl_->grace != 0) {
        g_source_remove(impl_->grace);
    }
    if (impl_->labelHostWatch != 0) {
        g_bus_unwatch_name(impl_->labelHostWatch);
    }
    if (impl_->registration != 0) {
        g_dbus_connection_unregister_object(impl_->connection.get(), impl_->registration);
    }
}

StatusItem& StatusNotifierItem::createStatusItem() {
    Impl& d = *impl_;
    if (d.registration != 0) {
        return *this;
    }
    glib::Error error;
    d.node.reset(g_dbus_node_info_new_for_xml(introspection, glib::out(error)));
    static const GDBusInterfaceVTable vtable = {
        // Methods: scrolling and middle clicks do nothing here, as before.
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
           GDBusMethodInvocation* invocation,
           gpointer) { g_dbus_method_invocation_return_value(invocation, nullptr); },
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name, GError**,
           gpointer data) -> GVariant* { return static_cast<Impl*>(data)->property(name); },
        nullptr,
        {}};
    if (d.node) {
        d.registration = g_dbus_connection_register_object(
            d.connection.get(), d.options.objectPath.c_str(), d.node->interfaces[0], &vtable, &d,
            nullptr, glib::out(error));
    }
    if (d.registration == 0) {
        Log::error(std::string("Failed to export the status item: ") +
                   (error ? error->message : "unknown error"));
        return *this;
    }
    // Called at once when a watcher runs, and again whenever one starts (a panel restart drops
    // every item).
    d.watch = g_bus_watch_name_on_connection(
        d.connection.get(), watcherName, G_BUS_NAME_WATCHER_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar*, gpointer data) {
            auto& self = *static_cast<Impl*>(data);
            if (self.grace != 0) {
                g_source_remove(self.grace);
                self.grace = 0;
            }
            self.registerWithWatcher();
        },
        [](GDBusConnection*, const gchar*, gpointer data) {
            static_cast<Impl*>(data)->awaitWatcher();
        },
        &d, nullptr);
    d.labelHostWatch = g_bus_watch_name_on_connection(
        d.connection.get(), labelHostName, G_BUS_NAME_WATCHER_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar*, gpointer data) {
            static_cast<Impl*>(data)->setLabelHost(true);
        },
        [](GDBusConnection*, const gchar*, gpointer data) {
            static_cast<Impl*>(data)->setLabelHost(false);
        },
        &d, nullptr);
    d.updateIcon();
    return *this;
}

void StatusNotifierItem::setTitle(const std::string& title) {
    Impl& d = *impl_;
    if (title == d.label && title == d.title) {
        return;
    }
    d.label = title;
    d.title = title;
    d.emit("XAyatanaNewLabel", g_variant_new("(ss)", d.label.c_str(), ""));
    d.emit("NewTitle");
    d.emit("NewToolTip");
    d.emit("NewIcon"); // its accessible description is the title
    d.propertiesChanged({"XAyatanaLabel", "Title", "ToolTip", "IconAccessibleDesc"});
}

void StatusNotifierItem::setDayCount(std::optional<int> days) {
    impl_->days = days;
    impl_->updateIcon();
}

} // namespace almanor
