# Installs the build into PREFIX and checks that everything landed where desktops look for it.
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${PREFIX} RESULT_VARIABLE result OUTPUT_QUIET)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${result}")
endif()
foreach(path
    bin/almanor
    ${LIBDIR}/almanor/libalmanor-${VERSION}.so
    libexec/almanor/almanor-tray
    ${LIBDIR}/almanor/almanor-window.so
    ${LIBDIR}/almanor/almanor-caldav.so
    share/applications/com.vostrel.Almanor.desktop
    share/metainfo/com.vostrel.Almanor.metainfo.xml
    share/icons/hicolor/scalable/apps/com.vostrel.Almanor.svg
    share/icons/hicolor/symbolic/apps/com.vostrel.Almanor-symbolic.svg
    share/locale/de/LC_MESSAGES/almanor.mo
    share/locale/cs/LC_MESSAGES/almanor.mo)
  if(NOT EXISTS ${PREFIX}/${path})
    message(FATAL_ERROR "missing after install: ${path}")
  endif()
endforeach()
# The installed almanor starts the installed tray (which, without a session bus, stops at once and
# touches nothing).
execute_process(COMMAND env -u DISPLAY -u WAYLAND_DISPLAY -u DBUS_SESSION_BUS_ADDRESS
                        XDG_RUNTIME_DIR=${PREFIX}/no-runtime HOME=${PREFIX}/home ${PREFIX}/bin/almanor
                RESULT_VARIABLE result ERROR_VARIABLE err OUTPUT_QUIET TIMEOUT 20)
if(err MATCHES "not installed" OR err MATCHES "cannot start the tray")
  message(FATAL_ERROR "the installed almanor did not find its tray: ${err}")
endif()
if(NOT err MATCHES "needs a session bus" OR result EQUAL 0)
  message(FATAL_ERROR "expected the tray to stop for the missing session bus, got ${result}: ${err}")
endif()
if(EXISTS ${PREFIX}/home)
  message(FATAL_ERROR "the tray wrote to the home folder although it could not start")
endif()
# Nothing of the project but its programs' own private library is needed from outside the prefix.
execute_process(COMMAND ldd ${PREFIX}/bin/almanor ${PREFIX}/libexec/almanor/almanor-tray
                        ${PREFIX}/${LIBDIR}/almanor/almanor-caldav.so ${PREFIX}/${LIBDIR}/almanor/almanor-window.so
                OUTPUT_VARIABLE linked)
if(linked MATCHES "not found" OR linked MATCHES "${BUILD}/libalmanor"
   OR NOT linked MATCHES "/${LIBDIR}/almanor/libalmanor-")
  message(FATAL_ERROR "the installed programs do not find their library:\n${linked}")
endif()
# The installed almanor finds the installed CalDAV module (logging out without an account loads it
# and says there is none).
execute_process(COMMAND env LC_ALL=C XDG_CONFIG_HOME=${PREFIX}/config XDG_DATA_HOME=${PREFIX}/data
                        ${PREFIX}/bin/almanor cloud logout
                RESULT_VARIABLE result ERROR_VARIABLE err OUTPUT_QUIET TIMEOUT 20)
if(NOT result EQUAL 0 OR NOT err STREQUAL "no cloud account\n")
  message(FATAL_ERROR "the installed almanor did not load its CalDAV module: ${result}: ${err}")
endif()
# And its catalogues (C.UTF-8 honours LANGUAGE, as in every GNU program).
execute_process(COMMAND env -u LC_ALL -u LC_MESSAGES LANG=C.UTF-8 LANGUAGE=cs XDG_CONFIG_HOME=${PREFIX}/config
                        XDG_DATA_HOME=${PREFIX}/data ${PREFIX}/bin/almanor cloud logout
                ERROR_VARIABLE err OUTPUT_QUIET TIMEOUT 20)
if(NOT err STREQUAL "žádný cloudový účet\n")
  message(FATAL_ERROR "the installed almanor did not find its catalogues: ${err}")
endif()
file(READ ${PREFIX}/share/metainfo/com.vostrel.Almanor.metainfo.xml metainfo)
if(metainfo MATCHES "@PROJECT_VERSION@")
  message(FATAL_ERROR "the metainfo's version was not filled in")
endif()
file(REMOVE_RECURSE ${PREFIX})
