# Installing and packaging: `cmake --install` puts the bridge and the MCP
# server side by side under the prefix (the server finds the bridge beside
# itself), and `cpack` makes a Debian package of them.
include(GNUInstallDirs)
install(TARGETS quorvel-bridge quorvel-mcp RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

set(CPACK_PACKAGE_NAME quorvel-bridge)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Observe and operate the frontmost desktop window from an agent (bridge and MCP server)")
set(CPACK_PACKAGE_CONTACT "Quorvel maintainers <maintainers@quorvel.invalid>")
if(NOT APPLE)
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION utils)
  # The shared libraries both executables link, as dpkg-shlibdeps (dpkg-dev)
  # finds them; and Tesseract with its English data, which the bridge loads
  # by name only when it first recognises text, so that no linker sees it.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libtesseract${QUORVEL_TESSERACT_MAJOR}, tesseract-ocr-eng")
  # The accessibility bus, which a desktop session normally starts.
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "at-spi2-core")
endif()
include(CPack)
