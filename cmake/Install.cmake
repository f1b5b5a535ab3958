# SPDX-License-Identifier: Apache-2.0
# What `make install` puts below its prefix: the shared library, the two programs, a unit for systemd, a
# CMake package, a pkg-config file, and the headers that an agent or a producer includes with everything those
# include. The list is computed from the #include lines: no header is installed that nobody outside can reach,
# and none is forgotten.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The headers that programs outside include; all others follow from them.
set(entry_headers
  vantrel/vantrel.h                # an agent
  vantrel/diag/wait_status.h       # why its entries wait, to be published
  vantrel/core/trace.h             # its trace, and records of its own in it
  platform/keel/timerfd_wheel.h    # the event loop's timer
  platform/keel/virtual_wheel.h    # the timer of an agent's tests
  platform/shoal/local_table.h     # tables inside one process
  platform/shoal/reader_table.h    # tables in a file
  platform/shoal/writer_table.h
  platform/shoal/inspect.h         # a look at such a file
  platform/ostra/publish.h         # an agent's objects on a socket
  platform/ostra/mount.h           # another process that follows them
  platform/ostra/mount_ask.h       # or asks once
  platform/ostra/type_info.h       # attributes by name; a class of one's own to publish
  platform/ostra/piecewise_map.h   # a look into the engine's collections
  platform/lumelog/lumelog.h       # a trace file of one's own
  platform/lumelog/tap.h
  platform/lumelog/reader.h        # a trace file read
  producer/producer.h              # a producer
  producer/shared_tables.h
  producer/acknowledgements.h
  producer/geometry.h              # what the agent has
  hw/executor.h                    # hardware that is late, or fails
  hw/adoption.h                    # or outlives the agent
  hw/recorder.h                    # hardware clients for tests
  hw/simulated_tcam.h)

# header_closure(VAR HEADERS...): the headers and all that they include, as paths from the repository's root.
function(header_closure var)
  set(open ${ARGN})
  set(closed "")
  while(open)
    list(POP_FRONT open header)
    if(NOT EXISTS ${PROJECT_SOURCE_DIR}/${header})
      continue()
    endif()
    list(APPEND closed ${header})
    set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY
      CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${header})
    file(STRINGS ${PROJECT_SOURCE_DIR}/${header} lines REGEX "^#include \"")
    foreach(line ${lines})
      string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" included "${line}")
      if(EXISTS ${PROJECT_SOURCE_DIR}/platform/${included})
        set(included platform/${included})
      endif()
      if(NOT included IN_LIST closed AND NOT included IN_LIST open)
        list(APPEND open ${included})
      endif()
    endforeach()
  endwhile()
  set(${var} ${closed} PARENT_SCOPE)
endfunction()

set(include_dir ${CMAKE_INSTALL_INCLUDEDIR}/vantrel-${VANTREL_ABI})
header_closure(headers ${entry_headers})
foreach(header ${headers})
  string(REGEX REPLACE "^platform/" "" installed ${header})
  cmake_path(GET installed PARENT_PATH folder)
  install(FILES ${header} DESTINATION ${include_dir}/${folder} COMPONENT development)
endforeach()

set(programs "")
foreach(program vantreld vantrel_command)
  if(TARGET ${program})
    list(APPEND programs ${program})
  endif()
endforeach()
file(RELATIVE_PATH library_from_bin /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_target_properties(libvantrel ${programs} PROPERTIES INSTALL_RPATH "$ORIGIN/${library_from_bin}")
install(TARGETS libvantrel LIBRARY COMPONENT library NAMELINK_COMPONENT development)
install(TARGETS ${programs} COMPONENT tools)
# What `make build` builds.
add_custom_target(programs DEPENDS libvantrel ${programs} demo)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Vantrel)
configure_package_config_file(cmake/VantrelConfig.cmake.in ${PROJECT_BINARY_DIR}/VantrelConfig.cmake
  INSTALL_DESTINATION ${package_dir} PATH_VARS include_dir CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VantrelConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VantrelConfig.cmake
  ${PROJECT_BINARY_DIR}/VantrelConfigVersion.cmake DESTINATION ${package_dir}
  COMPONENT development)
file(RELATIVE_PATH prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/vantrel.pc.in ${PROJECT_BINARY_DIR}/vantrel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vantrel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)

# The manual is made of what the programs say themselves. A sanitized program would want its options for that.
find_program(SCDOC scdoc)
if(SCDOC AND programs AND NOT VANTREL_SANITIZE)
  set(pages "")
  foreach(page vantrel.1 vantreld.8)
    cmake_path(GET page STEM name)
    cmake_path(GET page EXTENSION section)
    string(SUBSTRING ${section} 1 -1 section)
    set(made ${PROJECT_BINARY_DIR}/man/${page})
    add_custom_command(OUTPUT ${made}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
      COMMAND ${PROJECT_SOURCE_DIR}/scripts/man ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name} ${section}
        ${PROJECT_SOURCE_DIR}/docs/man/${name}.scd >${made}
      DEPENDS ${programs} scripts/man docs/man/${name}.scd)
    install(FILES ${made} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT tools)
    list(APPEND pages ${made})
  endforeach()
  add_custom_target(manual ALL DEPENDS ${pages})
  add_dependencies(programs manual)
endif()
install(FILES scripts/completion/vantrel.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
  RENAME vantrel COMPONENT tools)
install(FILES scripts/completion/_vantrel DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions
  COMPONENT tools)
install(DIRECTORY scripts/probes DESTINATION ${CMAKE_INSTALL_DATADIR}/vantrel COMPONENT tools)
# systemd looks into these whatever the prefix of the library directory.
install(FILES apps/vantreld/vantreld.service DESTINATION lib/systemd/system COMPONENT tools)
install(FILES apps/vantreld/vantrel.sysusers DESTINATION lib/sysusers.d RENAME vantrel.conf COMPONENT tools)
