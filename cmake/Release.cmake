# debian/changelog's newest entry must be this release, version and date: the version and date
# are set once, in CMakeLists.txt, and a release bumped there alone stops here rather than ship
# a package that names another one.
set(changelog ${PROJECT_SOURCE_DIR}/debian/changelog)
if(EXISTS ${changelog})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${changelog})
  file(STRINGS ${changelog} entry_lines REGEX "^almanor \\(|^ -- ")
  list(GET entry_lines 0 heading)
  list(GET entry_lines 1 trailer)
  string(REGEX MATCH "^almanor \\(([^)]*)\\)" _ "${heading}")
  set(changelog_version "${CMAKE_MATCH_1}")
  # " -- Name <address>  Sun, 22 Nov 2026 12:00:00 +0000"
  string(REGEX MATCH ">  [A-Z][a-z][a-z], ([0-9]+) ([A-Z][a-z][a-z]) ([0-9][0-9][0-9][0-9]) " _ "${trailer}")
  set(day "${CMAKE_MATCH_1}")
  set(months Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec)
  list(FIND months "${CMAKE_MATCH_2}" month)
  math(EXPR month "${month} + 1" OUTPUT_FORMAT DECIMAL)
  string(LENGTH "${day}" n)
  if(n EQUAL 1)
    set(day "0${day}")
  endif()
  if(month LESS 10)
    set(month "0${month}")
  endif()
  set(changelog_date "${CMAKE_MATCH_3}-${month}-${day}")
  if(NOT changelog_version STREQUAL PROJECT_VERSION OR NOT changelog_date STREQUAL ALMANOR_RELEASE_DATE)
    message(FATAL_ERROR "debian/changelog's newest entry is ${changelog_version} of ${changelog_date}, "
                        "but this is ${PROJECT_VERSION} of ${ALMANOR_RELEASE_DATE} (CMakeLists.txt): "
                        "add an entry for this release (dch -v ${PROJECT_VERSION}) or fix the one there")
  endif()
endif()
