#pragma once

namespace almanor {

// Hands ICU, built into the program, the system's ICU data; before any other use of ICU. False,
// with one line on standard error, when the data cannot be loaded.
bool useSystemIcuData();

} // namespace almanor
