#pragma once
// Owners of GLib's C handles: each frees what it holds the way GLib wants, once, when it goes out
// of scope, and none can be copied. The common ones (object references, errors, strings, string
// vectors, variants) free through functions compiled in platform (object references through
// GObject's own), so that this header needs no
// GLib header and can hold handles in a class's members; any other handle names its own free
// function, from a source file that includes its library: Owner<GDBusNodeInfo,
// g_dbus_node_info_unref>.

#include "platform/Export.h"

#include <memory>

typedef char gchar;
// GObject's reference counting, declared as its header does (gpointer is void*): only code that
// holds objects links libgobject.
extern "C" void g_object_unref(void* object);
extern "C" void* g_object_ref(void* object);
// NOLINTBEGIN(bugprone-reserved-identifier): GLib's own struct names, declared as its headers do.
typedef struct _GError GError;
typedef struct _GVariant GVariant;
// NOLINTEND(bugprone-reserved-identifier)

namespace almanor::glib {

// A stateless deleter calling `fn` on the pointer.
template <auto fn> struct Deleter {
    template <class T> void operator()(T* p) const noexcept { fn(p); }
};

// Any handle with its own free function.
template <class T, auto fn> using Owner = std::unique_ptr<T, Deleter<fn>>;

struct ObjectUnref {
    void operator()(void* object) const noexcept { g_object_unref(object); }
};
struct ALMANOR_EXPORT ErrorFree {
    void operator()(GError* error) const noexcept;
};
struct ALMANOR_EXPORT CharsFree {
    void operator()(gchar* text) const noexcept;
};
struct ALMANOR_EXPORT StrvFree {
    void operator()(gchar** vector) const noexcept;
};
struct ALMANOR_EXPORT VariantUnref {
    void operator()(GVariant* variant) const noexcept;
};

// One reference to a GObject (of any GObject type, declared or not).
template <class T> using Object = std::unique_ptr<T, ObjectUnref>;
using Error = std::unique_ptr<GError, ErrorFree>;
using Chars = std::unique_ptr<gchar, CharsFree>;
using Strv = std::unique_ptr<gchar*, StrvFree>;
using Variant = std::unique_ptr<GVariant, VariantUnref>;

// Takes an extra reference on an object that someone else owns; null stays null.
template <class T> Object<T> ref(T* object) {
    return Object<T>(static_cast<T*>(object != nullptr ? g_object_ref(object) : nullptr));
}

// Hands a pointer-to-handle out-parameter to a C call and owns what it reports:
// `f(..., glib::out(error))`, `g_file_get_contents(path, glib::out(text), ...)`. Taken over at the
// end of the full expression.
template <class Handle> class Out {
  public:
    using Raw = typename Handle::pointer;
    explicit Out(Handle& owner) : owner_(owner) {}
    ~Out() {
        if (raw_ != nullptr) {
            owner_.reset(raw_);
        }
    }
    Out(const Out&) = delete;
    Out& operator=(const Out&) = delete;
    operator Raw*() { return &raw_; }

  private:
    Handle& owner_;
    Raw raw_ = nullptr;
};

template <class Handle> Out<Handle> out(Handle& owner) {
    return Out<Handle>(owner);
}

} // namespace almanor::glib
