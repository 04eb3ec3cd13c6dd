# The hardening a distribution builds with, in every build: position-independent programs, a
# stack protector, checked buffer functions where the optimiser can check them, and relocations
# made read-only before the program runs (full RELRO).
include(CheckPIESupported)
check_pie_supported()
add_compile_options(-fstack-protector-strong -fno-semantic-interposition
                    $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
add_link_options(-Wl,-z,relro)
