# `docs`: the API reference (Doxygen) of the headers an application uses, into <build>/docs/html.
# The target exists only when doxygen is found (Debian: apt-get install doxygen).
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
    set(LOOMY_DOCS_HEADERS
        loomy/sync/RemoteNode.h
        loomy/bundle/BundleController.h
        loomy/bundle/Loomy1Support.h
        loomy/net/ConnectionThread.h
        loomy/net/LoomySettings.h
        loomy/assets/ServerBase.h
        loomy/assets/FileTransferHandler.h
        loomy/assets/AssetBase.h
        loomy/types/TypeRegistry.h)
    list(TRANSFORM LOOMY_DOCS_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/ OUTPUT_VARIABLE headers)
    list(JOIN headers " " LOOMY_DOCS_INPUT)
    configure_file(docs/Doxyfile.in ${CMAKE_CURRENT_BINARY_DIR}/Doxyfile @ONLY)
    add_custom_target(docs
        COMMAND ${DOXYGEN_EXECUTABLE} ${CMAKE_CURRENT_BINARY_DIR}/Doxyfile
        DEPENDS ${headers}
        COMMENT "API reference into ${CMAKE_CURRENT_BINARY_DIR}/docs/html"
        VERBATIM)
endif()
