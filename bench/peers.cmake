# The systems that the library is compared with. None of them has to be there: a program is built
# with those that are, and names the others.
option(DM_BENCH_PEERS "Compare with other systems, where they are installed" ON)

find_package(PkgConfig REQUIRED)

# Makes a system known under the target that it is linked by.
function(dm_find_peer name module)
  if(DM_BENCH_PEERS)
    pkg_check_modules(PEER_${name} QUIET IMPORTED_TARGET ${module})
    if(PEER_${name}_FOUND)
      set(peer_${name} PkgConfig::PEER_${name} PARENT_SCOPE)
    endif()
  endif()
endfunction()

dm_find_peer(libuv libuv)
dm_find_peer(libevent libevent_pthreads)
dm_find_peer(GLib glib-2.0)
dm_find_peer(sd-event libsystemd)
dm_find_peer(ZeroMQ libzmq)
if(DM_BENCH_PEERS)
  find_package(nng CONFIG QUIET) # which has no module of pkg-config
  if(TARGET nng::nng)
    set(peer_nng nng::nng)
  endif()
endif()

# Compiles a system's sources into a program of its comparison, if the system is there.
function(dm_add_peer program name)
  if(DEFINED peer_${name})
    target_sources(${program} PRIVATE ${ARGN})
    target_link_libraries(${program} PRIVATE ${peer_${name}})
  else()
    set_property(TARGET ${program} APPEND PROPERTY BENCH_ABSENT ${name})
  endif()
endfunction()
