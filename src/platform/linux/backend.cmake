# The Linux backend.
find_package(OpenSSL REQUIRED)
add_library(quorvel_digest STATIC src/platform/linux/digest.cpp)
target_include_directories(quorvel_digest PUBLIC src)
target_link_libraries(quorvel_digest PRIVATE OpenSSL::Crypto)

add_library(quorvel_platform STATIC
  src/platform/linux/no_desktop.cpp
)
target_link_libraries(quorvel_platform PUBLIC quorvel_core)
