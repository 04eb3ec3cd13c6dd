// libalmanor is made of the layers' archives; this is the one object of its own, naming the build
// that its programs and modules were made with.

#include "platform/Export.h"

namespace almanor {

ALMANOR_EXPORT extern const char libraryVersion[];
const char libraryVersion[] = ALMANOR_VERSION;

} // namespace almanor
