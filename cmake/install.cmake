# Headers, the static library, and a package that find_package(reservation_manager) finds.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/reservation_manager)

install(TARGETS reservation_manager EXPORT reservation_manager_targets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY messages host DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/reservation_manager FILES_MATCHING PATTERN "*.h"
  PATTERN record_text.h EXCLUDE PATTERN word.h EXCLUDE)
install(FILES reservation/reservation_manager.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/reservation_manager/reservation)
install(EXPORT reservation_manager_targets NAMESPACE reservation_manager:: DESTINATION ${package_dir}
  FILE reservation_manager-config.cmake)

write_basic_package_version_file(${PROJECT_BINARY_DIR}/reservation_manager-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/reservation_manager-config-version.cmake DESTINATION ${package_dir})
