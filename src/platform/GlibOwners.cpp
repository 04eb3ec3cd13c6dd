#include "platform/GlibOwners.h"

#include <glib.h>

namespace almanor::glib {

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

} // namespace almanor::glib
