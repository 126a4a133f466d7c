# quorvel_link_pkg(TARGET PREFIX MODULE...) links TARGET, privately, to the
# libraries of the pkg-config modules MODULE..., found under PREFIX.
#
# An agent starts the bridge for every request, and loading its shared
# libraries (some thirty, with what they load in turn) cost more than a
# request on a small window did. So an executable whose QUORVEL_STATIC_LINK
# property is on (the bridge, with QUORVEL_STATIC_LIBS) links each library
# that has a static archive from it: then the C library, xkbcommon and
# wayland-client (shared only, in Debian) are all it loads at start. Every
# other executable, the tests among them, links the shared libraries, so
# that no process holds two copies of one library.
if(QUORVEL_SANITIZE OR QUORVEL_FUZZ OR APPLE)
  set(QUORVEL_STATIC_DEFAULT OFF)
else()
  set(QUORVEL_STATIC_DEFAULT ON)
endif()
option(QUORVEL_STATIC_LIBS "Link the bridge with static archives where there are some"
       ${QUORVEL_STATIC_DEFAULT})

# Parts of the C library, always shared; and libsystemd, which libdbus's
# archive names but a client never needs (no_socket_activation.cpp).
set(QUORVEL_ALWAYS_SHARED c m dl rt pthread systemd)

function(quorvel_link_pkg target prefix)
  pkg_check_modules(${prefix} REQUIRED ${ARGN})
  target_include_directories(${target} PRIVATE ${${prefix}_INCLUDE_DIRS})
  target_compile_options(${target} PRIVATE ${${prefix}_CFLAGS_OTHER})
  # Evaluated for the executable being linked.
  set(static "$<BOOL:$<TARGET_PROPERTY:QUORVEL_STATIC_LINK>>")
  foreach(library IN LISTS ${prefix}_LINK_LIBRARIES)
    target_link_libraries(${target} PRIVATE "$<$<NOT:${static}>:${library}>")
  endforeach()
  foreach(name IN LISTS ${prefix}_STATIC_LIBRARIES)
    if(name IN_LIST QUORVEL_ALWAYS_SHARED)
      if(NOT name STREQUAL "systemd")
        target_link_libraries(${target} PRIVATE "$<${static}:${name}>")
      endif()
      continue()
    endif()
    find_library(archive NAMES lib${name}.a HINTS ${${prefix}_STATIC_LIBRARY_DIRS} NO_CACHE)
    if(archive)
      target_link_libraries(${target} PRIVATE "$<${static}:${archive}>")
    else()
      target_link_libraries(${target} PRIVATE "$<${static}:${name}>")
    endif()
    unset(archive)
  endforeach()
endfunction()
