#include "platform/GlibOwners.h"

#include <glib-object.h>

namespace almanor::glib {

void ObjectUnref::operator()(void* object) const noexcept {
    g_object_unref(object);
}

void ErrorFree::operator()(GError* error) const noexcept {
    g_error_free(error);
}

void CharsFree::operator()(gchar* text) const noexcept {
    g_free(text);
}

void StrvFree::operator()(gchar** vector) const noexcept {
    g_strfreev(vector);
}

void VariantUnref::operator()(GVariant* variant) const noexcept {
    g_variant_unref(variant);
}

void* addReference(void* object) noexcept {
    return object != nullptr ? g_object_ref(object) : nullptr;
}

} // namespace almanor::glib
