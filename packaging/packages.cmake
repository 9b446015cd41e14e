# Two Debian packages: the service, which is the same program as on devices, and the host platform that it runs on.
get_cmake_property(components COMPONENTS)
if("Unspecified" IN_LIST components)
  message(FATAL_ERROR "An install() has no COMPONENT: its files would be in no package")
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
languages and several switches. This package runs it on the host platform.")

# The service and SCIM are only recommended: without them, backups can still be shown, checked and deleted.
set(CPACK_DEBIAN_HOST_PACKAGE_NAME ime-backup-host)
set(CPACK_DEBIAN_HOST_PACKAGE_RECOMMENDS "ime-backup-service (= ${version}), scim, scim-modules-socket")
set(CPACK_DEBIAN_HOST_PACKAGE_SUGGESTS rclone)
set(CPACK_DEBIAN_HOST_DESCRIPTION "backup and restore of the on-screen keyboard's settings: host platform
Libraries that replace a device's platform on a workstation, based on SCIM and
SQLite, and ime-backupctl, which makes, shows and restores backups. The backups
are in a folder or, with rclone, in a remote store.

Once enabled, a user timer makes a backup each night. The package also has the
platform's headers, a program that checks the platform's libraries, and a
library that traces the service's calls.")
include(CPack)
