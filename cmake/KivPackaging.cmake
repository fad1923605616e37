# Debian packages, made by CPack from the install rules, one per component:
# - libkivsdk-dev (component "development"): headers, static and shared libraries, CMake and pkg-config files;
# - kiv-tools ("tools"): the kiv command line and kiv-capture;
# - kiv-service ("service"): the reference service, its systemd unit and its settings file.
# Build them from an optimised build: cmake --workflow --preset packages (see CMakePresets.json).
# Binaries depend on what dpkg-shlibdeps finds they link; the development package also names the -dev
# packages that the static libraries' consumers link.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kivsdk)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_CONTACT "KivSDK developers <kivsdk@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)

set(CPACK_COMPONENTS_ALL development)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkivsdk-dev)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "${PROJECT_DESCRIPTION}: headers and libraries\nThe SDK's C++ and C interfaces: static libraries, the shared library libkivsdk.so, the\nCMake package (find_package(KivSDK)) and pkg-config files (kivsdk, kivsdk-shared).")
set(kiv_dev_depends libcurl4-openssl-dev libssl-dev nlohmann-json3-dev libplist-dev pkg-config)
if(KIV_BUILD_PREVIEWS OR KIV_BUILD_CAPTURE)
  list(APPEND kiv_dev_depends libjpeg-dev libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev)
endif()
if(KIV_BUILD_CAPTURE)
  list(APPEND kiv_dev_depends qt6-base-dev qt6-svg-dev)
endif()
list(JOIN kiv_dev_depends ", " CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS)

if(TARGET kiv OR TARGET kiv-capture)
  list(APPEND CPACK_COMPONENTS_ALL tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kiv-tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
  set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "KivSDK's tools: the kiv command line and the kiv-capture screen\nkiv creates reports, adds media, submits them for certification, uploads, checks and\nverifies certificates; kiv-capture opens the capture screen on a camera or a file.")
  # The capture screen draws with Qt's platform plugins and records with GStreamer's plugins.
  if(TARGET kiv-capture)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
      "gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad, gstreamer1.0-plugins-ugly, gstreamer1.0-libav, qt6-qpa-plugins")
  endif()
endif()

if(TARGET kiv-service)
  list(APPEND CPACK_COMPONENTS_ALL service)
  set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME kiv-service)
  set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION net)
  set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS "adduser")
  set(CPACK_COMPONENT_SERVICE_DESCRIPTION
    "Reference certification service for KivSDK evidence reports\nHTTPS on loopback: stores reports and their content, confirms digests, issues signed\nPDF certificates. Runs as the system user kiv-service with its data in /var/lib/kiv-service;\nset its token in /etc/default/kiv-service.")
  set(kiv_service_package ${PROJECT_SOURCE_DIR}/packaging/kiv-service)
  set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA
    ${kiv_service_package}/postinst ${kiv_service_package}/prerm ${kiv_service_package}/postrm
    ${kiv_service_package}/conffiles)
  set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_STRICT_PERMISSION ON)
  install(FILES ${kiv_service_package}/kiv-service.service DESTINATION lib/systemd/system COMPONENT service)
  # The settings file installs under the prefix (a test's install stays in its folder); the package moves
  # it to /etc.
  install(FILES ${kiv_service_package}/default DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/default
    RENAME kiv-service COMPONENT service)
  set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/MoveSettingsToEtc.cmake)
endif()

include(CPack)
