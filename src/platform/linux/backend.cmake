# The Linux backend: AT-SPI2 for accessibility, Xlib with EWMH for windows,
# XTest for input, Tesseract for text recognition, OpenSSL for SHA-256.
find_package(OpenSSL REQUIRED)
add_library(quorvel_digest STATIC src/platform/linux/digest.cpp)
target_include_directories(quorvel_digest PUBLIC src)
target_link_libraries(quorvel_digest PRIVATE OpenSSL::Crypto)

file(GLOB_RECURSE QUORVEL_LINUX_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/platform/linux/*.cpp)
list(FILTER QUORVEL_LINUX_SOURCES EXCLUDE REGEX "/digest\\.cpp$")
add_library(quorvel_platform STATIC ${QUORVEL_LINUX_SOURCES})
# Of the core, the backend sees only the seam (platform/platform.h).
target_include_directories(quorvel_platform PUBLIC src)
target_link_libraries(quorvel_platform PRIVATE quorvel_unicode)

# The read side: libatspi and libdbus for the accessibility tree, Xlib for
# window images, XCB over the same connection for the window list.
# Tesseract, for text recognition, is loaded by name when first needed
# (text_recognition.h), so only its headers are used here.
pkg_check_modules(QUORVEL_LINUX_READ REQUIRED IMPORTED_TARGET
  atspi-2 dbus-1 glib-2.0 gobject-2.0 x11 x11-xcb xcb)
pkg_check_modules(QUORVEL_TESSERACT REQUIRED tesseract)
string(REGEX MATCH "^[0-9]+" QUORVEL_TESSERACT_MAJOR "${QUORVEL_TESSERACT_VERSION}")
target_include_directories(quorvel_platform PRIVATE ${QUORVEL_TESSERACT_INCLUDE_DIRS})
target_compile_definitions(quorvel_platform PRIVATE
  QUORVEL_TESSERACT_SONAME="libtesseract.so.${QUORVEL_TESSERACT_MAJOR}")
target_link_libraries(quorvel_platform PRIVATE PkgConfig::QUORVEL_LINUX_READ ${CMAKE_DL_LIBS})

# PNG encoding of window images, for observations that ask for the image.
pkg_check_modules(QUORVEL_PNG REQUIRED IMPORTED_TARGET libpng)
target_link_libraries(quorvel_platform PRIVATE PkgConfig::QUORVEL_PNG)

# XTest input: Xlib and XTest, and xkbcommon's character-to-keysym table.
pkg_check_modules(QUORVEL_XINPUT REQUIRED IMPORTED_TARGET x11 xtst xkbcommon)
target_link_libraries(quorvel_platform PRIVATE PkgConfig::QUORVEL_XINPUT)

# Wayland: the window system of a wlroots compositor (wayland/).
include(${CMAKE_CURRENT_LIST_DIR}/wayland/wayland.cmake)
