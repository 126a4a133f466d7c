# The macOS backend, in Objective-C++ with ARC: the Accessibility API,
# AppKit's workspace, the window server and Core Graphics events, Vision for
# text recognition, CommonCrypto for SHA-256.
enable_language(OBJCXX)

add_library(quorvel_digest STATIC src/platform/macos/digest.mm)
target_include_directories(quorvel_digest PUBLIC src)

# CGWindowListCreateImage is deprecated since macOS 14 and obsoleted when the
# deployment target is macOS 15 or later (newer SDKs may drop it). Use it where
# this SDK still lets a call compile; otherwise capture with ScreenCaptureKit.
include(CheckOBJCXXSourceCompiles)
function(quorvel_check_cg_window_image)
  # Compiling is the question; linking would only add the framework search.
  set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
  check_objcxx_source_compiles([[
#include <CoreGraphics/CoreGraphics.h>
CGImageRef windowImage() {
    return CGWindowListCreateImage(CGRectNull, kCGWindowListOptionIncludingWindow,
                                   kCGNullWindowID, kCGWindowImageDefault);
}
]] QUORVEL_HAVE_CG_WINDOW_IMAGE)
endfunction()
quorvel_check_cg_window_image()

file(GLOB QUORVEL_MACOS_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/platform/macos/*.mm)
list(FILTER QUORVEL_MACOS_SOURCES EXCLUDE REGEX "/digest\\.mm$")
add_library(quorvel_platform STATIC ${QUORVEL_MACOS_SOURCES})
target_compile_options(quorvel_platform PRIVATE -fobjc-arc)
if(QUORVEL_HAVE_CG_WINDOW_IMAGE)
  target_compile_definitions(quorvel_platform PRIVATE QUORVEL_CG_WINDOW_IMAGE=1)
else()
  target_compile_definitions(quorvel_platform PRIVATE QUORVEL_CG_WINDOW_IMAGE=0)
  target_link_libraries(quorvel_platform PRIVATE "-framework ScreenCaptureKit" "-framework CoreVideo")
endif()
target_include_directories(quorvel_platform PUBLIC src)
target_link_libraries(quorvel_platform
  PRIVATE quorvel_unicode
          "-framework ApplicationServices" "-framework CoreGraphics"
          "-framework CoreFoundation" "-framework AppKit" "-framework Vision"
          "-framework ImageIO")

# Backend tests: the value translations, the ownership holder, event
# construction and the digest, against the real frameworks. Only a Mac can run
# them, so they live with the backend rather than in the shared test binary.
if(QUORVEL_TESTS)
  find_package(GTest REQUIRED)
  file(GLOB QUORVEL_MACOS_TEST_SOURCES CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/src/platform/macos/tests/*_test.mm)
  add_executable(quorvel_macos_tests ${QUORVEL_MACOS_TEST_SOURCES})
  target_compile_options(quorvel_macos_tests PRIVATE -fobjc-arc)
  target_link_libraries(quorvel_macos_tests PRIVATE quorvel_platform quorvel_digest quorvel_unicode
                        GTest::gtest GTest::gtest_main)
  include(GoogleTest)
  gtest_discover_tests(quorvel_macos_tests DISCOVERY_TIMEOUT 60)
endif()
