#include "platform/IcuData.h"

#include <cstdint>
#include <cstdio>
#include <dlfcn.h>
#include <unicode/udata.h>
#include <unicode/uversion.h>

// ICU's code is built into almanor and the tray but its data (30 MB of tables) is not: the program
// carries an empty table under the data's symbol, and at start hands ICU the system's data library,
// which is mapped, not copied, and needs no relocation.

namespace {

// The layout of an ICU common data file with an empty table of contents.
struct EmptyCommonData {
    uint16_t headerSize;
    uint8_t magic1;
    uint8_t magic2;
    UDataInfo info;
    char padding[8];
    uint32_t count;
    uint32_t reserved;
    uintptr_t toc[4];
};

#define ALMANOR_TEXT(x) #x
#define ALMANOR_STRING(x) ALMANOR_TEXT(x)
constexpr const char* dataLibrary = "libicudata.so." ALMANOR_STRING(U_ICU_VERSION_MAJOR_NUM);
constexpr const char* dataSymbol = ALMANOR_STRING(U_ICUDATA_ENTRY_POINT);

} // namespace

// ICU's static libraries refer to their data by this symbol; it is looked in only after the data
// handed over below.
extern "C" const EmptyCommonData U_ICUDATA_ENTRY_POINT = {
    32,
    0xda,
    0x27,
    {sizeof(UDataInfo),
     0,
     U_IS_BIG_ENDIAN,
     U_CHARSET_FAMILY,
     sizeof(UChar),
     0,
     {0x54, 0x6f, 0x43, 0x50}, // "ToCP", a table of contents
     {1, 0, 0, 0},
     {0, 0, 0, 0}},
    {},
    0,
    0,
    {}};

namespace almanor {

bool useSystemIcuData() {
    void* library = ::dlopen(dataLibrary, RTLD_NOW | RTLD_LOCAL);
    const void* data = library != nullptr ? ::dlsym(library, dataSymbol) : nullptr;
    if (data == nullptr) {
        std::fprintf(stderr, "almanor: cannot load ICU's data: %s\n", ::dlerror());
        return false;
    }
    UErrorCode status = U_ZERO_ERROR;
    udata_setCommonData(data, &status);
    if (U_FAILURE(status)) {
        std::fprintf(stderr, "almanor: ICU refused its data in %s: %s\n", dataLibrary,
                     u_errorName(status));
        return false;
    }
    return true;
}

} // namespace almanor
