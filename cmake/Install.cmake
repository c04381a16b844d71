# What `cmake --install` lays down: the libraries with their headers, the agent with its service,
# and the files that find_package(IgmpHostProxy) reads.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(IHP_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/IgmpHostProxy)

# Installs the library whose sources lie in the top directory of the target's own name, with its
# headers below include/IgmpHostProxy/<name>, and the other targets named, which have their sources
# there, too.
function(ihp_install_library target)
  install(TARGETS ${target} ${ARGN} EXPORT IgmpHostProxyTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(DIRECTORY ${target}/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/IgmpHostProxy/${target}
    FILES_MATCHING PATTERN "*.h")
endfunction()

function(ihp_install_agent)
  install(TARGETS ihproxyd DESTINATION ${CMAKE_INSTALL_SBINDIR})
  install(TARGETS ihproxyctl DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES examples/ihproxyd.toml DESTINATION ${CMAKE_INSTALL_DOCDIR})
  install(FILES agent/systemd/ihproxyd.sysusers DESTINATION lib/sysusers.d RENAME ihproxyd.conf)
  foreach(program ihproxyd ihproxyctl)
    install(FILES agent/completion.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
      RENAME ${program})
  endforeach()
  if(IHP_BUILD_MANUALS)
    install(DIRECTORY ${PROJECT_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR})
  endif()
  # Written while installing: only then is the prefix known, which names the program. Below the
  # prefix even where that is not /usr, so that installing never needs to write elsewhere.
  install(CODE "
    cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE OUTPUT_VARIABLE prefix)
    cmake_path(APPEND prefix \"${CMAKE_INSTALL_SBINDIR}\" ihproxyd OUTPUT_VARIABLE IHP_PROGRAM)
    cmake_path(APPEND prefix \"${CMAKE_INSTALL_BINDIR}\" ihproxyctl OUTPUT_VARIABLE IHP_CONTROL)
    configure_file(\"${PROJECT_SOURCE_DIR}/agent/systemd/ihproxyd.service.in\"
      \"${PROJECT_BINARY_DIR}/ihproxyd.service\" @ONLY)
    file(INSTALL \"${PROJECT_BINARY_DIR}/ihproxyd.service\"
      DESTINATION \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/system\")")
endfunction()

# Called last: exports every library that was installed.
function(ihp_install_package)
  install(EXPORT IgmpHostProxyTargets
    NAMESPACE IgmpHostProxy::
    FILE IgmpHostProxyConfig.cmake
    DESTINATION ${IHP_PACKAGE_DIR})
  # Before 1.0 a minor version may break users.
  write_basic_package_version_file(IgmpHostProxyConfigVersion.cmake COMPATIBILITY SameMinorVersion)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/IgmpHostProxyConfigVersion.cmake
    DESTINATION ${IHP_PACKAGE_DIR})
  # For builds without CMake. Found beside the libraries, wherever these lie.
  cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR
    BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE includes)
  file(CONFIGURE OUTPUT IgmpHostProxy.pc @ONLY CONTENT [[
includes=${pcfiledir}/@includes@/IgmpHostProxy

Name: IgmpHostProxy
Description: IGMP host proxy as reactive state machines
Version: @PROJECT_VERSION@
Cflags: -I${includes} -I${includes}/platform
Libs: -L${pcfiledir}/.. -lIgmpHostProxy -lIgmpHostProxyPlatform -lIgmpHostProxyLox
]])
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/IgmpHostProxy.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
