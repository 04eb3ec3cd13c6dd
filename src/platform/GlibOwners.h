#pragma once
// Owners of GLib's C handles, for the .cpp files that talk to GLib: each frees what it holds the
// way GLib wants, once, when it goes out of scope. Include only from source files.

#include <glib-object.h>
#include <memory>

namespace almanor::glib {

// A stateless deleter calling `fn` on the pointer.
template <auto fn> struct Deleter {
    template <class T> void operator()(T* p) const noexcept { fn(p); }
};

// Any handle with its own free function: Owner<GDBusNodeInfo, g_dbus_node_info_unref>.
template <class T, auto fn> using Owner = std::unique_ptr<T, Deleter<fn>>;

// One reference to a GObject.
template <class T> using Object = Owner<T, g_object_unref>;

// Takes an extra reference on an object that someone else owns.
template <class T> Object<T> ref(T* object) {
    return Object<T>(object != nullptr ? static_cast<T*>(g_object_ref(object)) : nullptr);
}

using Error = Owner<GError, g_error_free>;
using Chars = Owner<gchar, g_free>;
using Strv = Owner<gchar*, g_strfreev>;
using Variant = Owner<GVariant, g_variant_unref>;

// Hands a GError** to a C call and owns what it reports: `f(..., glib::out(error))`. The error is
// taken over at the end of the full expression.
class ErrorOut {
  public:
    explicit ErrorOut(Error& owner) : owner_(owner) {}
    ~ErrorOut() {
        if (raw_ != nullptr) {
            owner_.reset(raw_);
        }
    }
    ErrorOut(const ErrorOut&) = delete;
    ErrorOut& operator=(const ErrorOut&) = delete;
    operator GError**() { return &raw_; }

  private:
    Error& owner_;
    GError* raw_ = nullptr;
};

inline ErrorOut out(Error& owner) {
    return ErrorOut(owner);
}

} // namespace almanor::glib
