# Each library exports its own headers and no others. Its public include directory is a folder in
# the build tree holding links to its headers only, under the path they are included by
# (build/include/storage/storage/Repository.h -> src/storage/Repository.h), so that
# `#include "storage/Repository.h"` compiles only in a target that links storage. A link per
# header rather than per folder: a folder's sub-layer built as a library of its own
# (cloud/caldav) is not exported by its parent.
#
#   almanor_export_headers(target folder [header ...])
#
# `folder` is relative to src/; without headers, every header directly in it. Called once per
# folder; the glob is checked again at each build, so a new header needs no manual re-run.
function(almanor_export_headers target folder)
  set(root ${PROJECT_BINARY_DIR}/include/${target})
  if(ARGN)
    list(TRANSFORM ARGN PREPEND ${PROJECT_SOURCE_DIR}/src/${folder}/ OUTPUT_VARIABLE headers)
  else()
    file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${folder}/*.h)
  endif()
  # Links of headers since removed would still resolve.
  file(GLOB stale ${root}/${folder}/*.h)
  foreach(link ${stale})
    file(REMOVE ${link})
  endforeach()
  file(MAKE_DIRECTORY ${root}/${folder})
  foreach(header ${headers})
    get_filename_component(name ${header} NAME)
    file(CREATE_LINK ${header} ${root}/${folder}/${name} SYMBOLIC)
  endforeach()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    target_include_directories(${target} INTERFACE ${root})
  elseif(type MATCHES "LIBRARY")
    target_include_directories(${target} PUBLIC ${root})
  else()
    target_include_directories(${target} PRIVATE ${root})
  endif()
endfunction()
