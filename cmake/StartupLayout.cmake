# The programs with their libraries built in (almanor, the tray) lay out the functions that a start
# runs side by side, in the order of src/startup-order.txt (written by scripts/startup-order): the
# pages a start touches are then a few in a row instead of a scattering over the whole program,
# which is less resident memory for the tray and fewer page faults for `almanor status`. Every
# function and datum gets a section of its own so that the linker can move it, and unused ones go.
# Needs lld; with another linker the programs are only laid out as usual.
#
#   almanor_startup_layout(target)

if(ALMANOR_BUILT_IN_LIBRARIES)
  add_compile_options(-ffunction-sections -fdata-sections)
  find_program(ALMANOR_LLD ld.lld)
  if(NOT ALMANOR_LLD)
    message(STATUS "ld.lld not found: almanor and the tray are laid out without the start-up order")
  endif()
endif()

function(almanor_startup_layout target)
  set(order ${PROJECT_SOURCE_DIR}/src/startup-order.txt)
  if(ALMANOR_BUILT_IN_LIBRARIES AND ALMANOR_LLD AND EXISTS ${order})
    target_link_options(${target} PRIVATE -fuse-ld=lld -Wl,--symbol-ordering-file=${order}
                        -Wl,--no-warn-symbol-ordering)
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${order})
  endif()
endfunction()
