# Installs the libraries with their public headers (under include/kivsdk/, so that their component folders
# cannot clash with other software's), an exported CMake package (find_package(KivSDK)) and a pkg-config
# file (pkg-config kivsdk). Both find the installation relative to themselves, so the install prefix may be
# chosen at install time (cmake --install --prefix).
include(CMakePackageConfigHelpers)

# Everything below belongs to the development package (see KivPackaging.cmake); the tools name their own.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)

set(KIV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KivSDK)

set(KIV_INSTALLED_TARGETS ZuSharedLibaries KivSDK kivsdk)
if(TARGET ZuGStreamer)
  list(APPEND KIV_INSTALLED_TARGETS ZuGStreamer)
endif()
if(KIV_BUILD_CAPTURE)
  list(APPEND KIV_INSTALLED_TARGETS KivCaptureCore KivCaptureFake KivCaptureGst KivCaptureQt)
endif()
install(TARGETS ${KIV_INSTALLED_TARGETS} EXPORT KivSDKTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${KIV_INCLUDE_DIR})
install(EXPORT KivSDKTargets NAMESPACE Kiv:: DESTINATION ${KIV_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/KivSDKConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KivSDKConfig.cmake INSTALL_DESTINATION ${KIV_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KivSDKConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KivSDKConfig.cmake ${PROJECT_BINARY_DIR}/KivSDKConfigVersion.cmake
  DESTINATION ${KIV_CMAKE_DIR})

# The way back from the pkg-config folder to the prefix ("../.." for lib/pkgconfig).
file(RELATIVE_PATH KIV_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KIV_PC_PREFIX "${KIV_PC_PREFIX}")
# The SDK's preview images link GStreamer support and libjpeg.
set(KIV_PC_REQUIRES "libcurl openssl libplist-2.0")
set(KIV_PC_LIBS "-lKivSDK -lZuSharedLibaries")
if(KIV_BUILD_PREVIEWS)
  string(APPEND KIV_PC_REQUIRES " libjpeg gstreamer-1.0 gstreamer-app-1.0 gstreamer-video-1.0")
  set(KIV_PC_LIBS "-lKivSDK -lZuGStreamer -lZuSharedLibaries")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/kivsdk.pc.in ${PROJECT_BINARY_DIR}/kivsdk.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kivsdk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The shared library (libkivsdk.so: the C interface and the C++ API, its dependencies linked in) needs no
# Requires: pkg-config kivsdk-shared serves C and C++ hosts alike.
configure_file(${CMAKE_CURRENT_LIST_DIR}/kivsdk-shared.pc.in ${PROJECT_BINARY_DIR}/kivsdk-shared.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kivsdk-shared.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
