#pragma once

// What libalmanor offers the programs and modules that link it; everything else stays inside.
#define ALMANOR_EXPORT __attribute__((visibility("default")))
