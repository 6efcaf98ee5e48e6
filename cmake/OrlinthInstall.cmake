# The program, and what a host application needs to link the core: static libraries of the layers, their headers and
# the CMake package Orlinth (find_package(Orlinth) gives Orlinth::OrlinthCore).
include(CMakePackageConfigHelpers)

set(packageDir "${CMAKE_INSTALL_LIBDIR}/cmake/Orlinth")

install(TARGETS orlinth RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")

# Outside, all names are under Orlinth::, so the layers' own need no prefix.
set_target_properties(orlinth_base PROPERTIES EXPORT_NAME base)
set_target_properties(orlinth_platform PROPERTIES EXPORT_NAME platform)
set_target_properties(orlinth_asio PROPERTIES EXPORT_NAME asio)
install(TARGETS OrlinthCore orlinth_platform orlinth_base orlinth_asio EXPORT OrlinthTargets
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(EXPORT OrlinthTargets NAMESPACE Orlinth:: DESTINATION "${packageDir}")

install(CODE "
  set(ORLINTH_SOURCE \"${PROJECT_SOURCE_DIR}\")
  set(ORLINTH_STAGE \"${PROJECT_BINARY_DIR}/headers\")
  cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE OUTPUT_VARIABLE ORLINTH_INCLUDEDIR)
  cmake_path(APPEND ORLINTH_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
")
install(SCRIPT "${PROJECT_SOURCE_DIR}/cmake/OrlinthHeaders.cmake")

configure_package_config_file("${PROJECT_SOURCE_DIR}/packaging/OrlinthConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/OrlinthConfig.cmake" INSTALL_DESTINATION "${packageDir}")
# Before 1.0 a new minor version may change anything.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/OrlinthConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/OrlinthConfig.cmake" "${PROJECT_BINARY_DIR}/OrlinthConfigVersion.cmake"
        DESTINATION "${packageDir}")

install(FILES "${PROJECT_SOURCE_DIR}/LICENSE" "${PROJECT_SOURCE_DIR}/README.md" DESTINATION "${CMAKE_INSTALL_DOCDIR}")

# User units of systemd, in the folder that is searched below any prefix of the system. The prefix is known for certain
# only when installing.
install(CODE "
  cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE OUTPUT_VARIABLE orlinthPrefix)
  cmake_path(APPEND orlinthPrefix \"${CMAKE_INSTALL_BINDIR}\" \"$<TARGET_FILE_NAME:orlinth>\" OUTPUT_VARIABLE ORLINTH_PROGRAM)
  cmake_path(APPEND orlinthPrefix \"${CMAKE_INSTALL_DOCDIR}\" README.md OUTPUT_VARIABLE ORLINTH_README)
  configure_file(\"${PROJECT_SOURCE_DIR}/packaging/systemd/orlinth.service.in\"
                 \"${PROJECT_BINARY_DIR}/orlinth.service\" @ONLY)
  configure_file(\"${PROJECT_SOURCE_DIR}/packaging/dbus/com.tarvinex.orlinth1.service.in\"
                 \"${PROJECT_BINARY_DIR}/com.tarvinex.orlinth1.service\" @ONLY)
")
install(FILES "${PROJECT_BINARY_DIR}/orlinth.service" "${PROJECT_SOURCE_DIR}/packaging/systemd/orlinth.socket"
        DESTINATION lib/systemd/user)

# How the session's bus starts the service for whoever asks for it: by systemd, or by itself where there is none.
install(FILES "${PROJECT_BINARY_DIR}/com.tarvinex.orlinth1.service" DESTINATION share/dbus-1/services)

# What the service shows on the session's bus, for those who write programs against it.
install(FILES "${PROJECT_SOURCE_DIR}/packaging/dbus/com.tarvinex.orlinth1.xml" DESTINATION share/dbus-1/interfaces)

# What firewalls call the port. firewalld reads its services below /usr only, and ufw its profiles in /etc, which is
# where the settings of programs in /usr belong.
install(FILES "${PROJECT_SOURCE_DIR}/packaging/firewalld/orlinth.xml" DESTINATION lib/firewalld/services)
install(CODE "
  cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE OUTPUT_VARIABLE orlinthSettings)
  if(orlinthSettings MATCHES \"^/usr/?$\")
    set(orlinthSettings /)
  endif()
  cmake_path(APPEND orlinthSettings \"${CMAKE_INSTALL_SYSCONFDIR}\" ufw/applications.d)
  file(INSTALL \"${PROJECT_SOURCE_DIR}/packaging/ufw/orlinth\" DESTINATION \"\${orlinthSettings}\")
")

if(TARGET orlinth-share)
  include(OrlinthDesktop)
endif()
