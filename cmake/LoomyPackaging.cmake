# Debian packages through CPack (tools/package.sh runs it on a Release build installed to /usr):
#   libloomy<SOVERSION>  the shared libraries, with their versioned SONAMEs
#   libloomy-dev         headers, the CMake package, loomy.pc and the unversioned .so links
#   loomy-tools          the loomy command, made only when the build has the `loomy` target
set(LOOMY_RUNTIME_PACKAGE libloomy${PROJECT_VERSION_MAJOR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME loomy)
set(CPACK_PACKAGE_VENDOR "Loomy developers")
set(CPACK_PACKAGE_CONTACT "Loomy developers <loomy@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "keeps a tree of typed attributes equal between two processes")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tools link the libraries of the runtime package, which dpkg-shlibdeps finds in the build.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/loomy ${PROJECT_BINARY_DIR}/host/kestrel ${PROJECT_BINARY_DIR}/host/tamarack)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${LOOMY_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Loomy shared libraries (Loomy, Tamarack, Kestrel)")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libloomy-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${LOOMY_RUNTIME_PACKAGE} (= ${PROJECT_VERSION}), qtbase5-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Loomy headers, CMake package and pkg-config file")
if(TARGET loomy)
    list(APPEND CPACK_COMPONENTS_ALL tools)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME loomy-tools)
    set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
    set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
    set(CPACK_COMPONENT_TOOLS_DESCRIPTION "the loomy command: serve, connect to and watch a Loomy peer")
endif()
include(CPack)
