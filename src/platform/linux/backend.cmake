# The Linux backend: AT-SPI2 for accessibility, Xlib with EWMH for windows,
# XTest for input, Tesseract for text recognition, OpenSSL for SHA-256.
# Libraries are linked with quorvel_link_pkg (cmake/pkg_libraries.cmake).
add_library(quorvel_digest STATIC src/platform/linux/digest.cpp)
target_include_directories(quorvel_digest PUBLIC src)
quorvel_link_pkg(quorvel_digest QUORVEL_CRYPTO libcrypto)

file(GLOB_RECURSE QUORVEL_LINUX_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/platform/linux/*.cpp)
list(FILTER QUORVEL_LINUX_SOURCES EXCLUDE REGEX "/(digest|no_socket_activation)\\.cpp$")
add_library(quorvel_platform STATIC ${QUORVEL_LINUX_SOURCES})
# Of the core, the backend sees only the seam (platform/platform.h).
target_include_directories(quorvel_platform PUBLIC src)
target_link_libraries(quorvel_platform PRIVATE quorvel_unicode)

# The read side: libdbus for the accessibility tree (the AT-SPI calls are
# our own, and only the constants of AT-SPI's headers are used), Xlib for
# window images, XCB over the same connection for the window list.
# Tesseract, for text recognition, is loaded by name when first needed
# (text_recognition.h), so only its headers are used here.
pkg_check_modules(QUORVEL_ATSPI_HEADERS REQUIRED atspi-2)
target_include_directories(quorvel_platform PRIVATE ${QUORVEL_ATSPI_HEADERS_INCLUDE_DIRS})
quorvel_link_pkg(quorvel_platform QUORVEL_LINUX_READ dbus-1 x11 x11-xcb xcb)
# After libdbus's archive on the link line, which it completes.
add_library(quorvel_no_socket_activation STATIC src/platform/linux/atspi/no_socket_activation.cpp)
target_link_libraries(quorvel_platform PRIVATE
  "$<$<BOOL:$<TARGET_PROPERTY:QUORVEL_STATIC_LINK>>:quorvel_no_socket_activation>")
pkg_check_modules(QUORVEL_TESSERACT REQUIRED tesseract)
string(REGEX MATCH "^[0-9]+" QUORVEL_TESSERACT_MAJOR "${QUORVEL_TESSERACT_VERSION}")
target_include_directories(quorvel_platform PRIVATE ${QUORVEL_TESSERACT_INCLUDE_DIRS})
target_compile_definitions(quorvel_platform PRIVATE
  QUORVEL_TESSERACT_SONAME="libtesseract.so.${QUORVEL_TESSERACT_MAJOR}")
target_link_libraries(quorvel_platform PRIVATE ${CMAKE_DL_LIBS})

# PNG encoding of window images, for observations that ask for the image.
quorvel_link_pkg(quorvel_platform QUORVEL_PNG libpng)

# XTest input: Xlib and XTest, and xkbcommon's character-to-keysym table.
quorvel_link_pkg(quorvel_platform QUORVEL_XINPUT x11 xtst xkbcommon)

# Wayland: the window system of a wlroots compositor (wayland/).
include(${CMAKE_CURRENT_LIST_DIR}/wayland/wayland.cmake)
