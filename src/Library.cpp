// libalmanor and libalmanor-dates are made of the layers' archives; this is the one object of
// their own, naming the build that their programs and modules were made with.

#include "platform/Export.h"

namespace almanor {

#ifndef ALMANOR_LIBRARY_VERSION_NAME
#define ALMANOR_LIBRARY_VERSION_NAME libraryVersion
#endif

ALMANOR_EXPORT extern const char ALMANOR_LIBRARY_VERSION_NAME[];
const char ALMANOR_LIBRARY_VERSION_NAME[] = ALMANOR_VERSION;

} // namespace almanor
