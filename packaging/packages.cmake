# Two Debian packages. The service is the program that devices have; it runs on the host package's libraries.
get_cmake_property(components COMPONENTS)
if("Unspecified" IN_LIST components)
  message(FATAL_ERROR "An install() has no COMPONENT: what it installs would be in no package")
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL host service)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/complete.cmake)

set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE ${PROJECT_NAME})
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "IME backup service developers <ime-backup@example.org>")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME ime-backup-service)
set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS "ime-backup-host (= ${version})")
set(CPACK_DEBIAN_SERVICE_DESCRIPTION "backup and restore of the on-screen keyboard's settings: service
The service that a device's cloud backup client starts for a backup or a
restore of the on-screen keyboard's settings: the active keyboard, the selected
languages and a row of switches. Here it runs on the host platform.")

# Without the service, or a SCIM daemon here, backups can still be looked at and looked after.
set(CPACK_DEBIAN_HOST_PACKAGE_NAME ime-backup-host)
set(CPACK_DEBIAN_HOST_PACKAGE_RECOMMENDS "ime-backup-service (= ${version}), scim, scim-modules-socket")
set(CPACK_DEBIAN_HOST_PACKAGE_SUGGESTS rclone)
set(CPACK_DEBIAN_HOST_DESCRIPTION "backup and restore of the on-screen keyboard's settings: host platform
The libraries that stand in for a device's platform on a workstation, on SCIM
and SQLite, and ime-backupctl, with which a person there makes, looks at and
restores backups. These are in a folder or, with rclone, at a remote place.

A user timer makes a backup each night, once it is enabled. The platform's
headers, a program that checks its libraries, and a library that traces the
service's calls come along.")
include(CPack)
