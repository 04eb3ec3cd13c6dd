# One warnings target, linked PRIVATE by every target of the project.
add_library(almanor_warnings INTERFACE)
target_compile_options(almanor_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
  -Wcast-align -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough)
# Off for users' builds (a newer or older compiler may warn where this one does not); the
# test command and CI turn it on.
option(ALMANOR_WARNINGS_AS_ERRORS "Treat warnings as errors" OFF)
if(ALMANOR_WARNINGS_AS_ERRORS)
  target_compile_options(almanor_warnings INTERFACE -Werror)
endif()
