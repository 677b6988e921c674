# `cmake --install build/release` gives a tree that runs from where it stands: sbin/ lib/ var/.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr/local/vel5 CACHE PATH "Install root of the panel" FORCE)
endif()
install(DIRECTORY DESTINATION var/backup/qorvel DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
install(DIRECTORY DESTINATION var/run DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)

add_custom_target(programs)  # all that an install root runs

# A program of a folder of the install root: built into <build>/FOLDER, finds lib/ beside it.
function(backup2_program_in folder name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE backup2_warnings)
  set_target_properties(${name} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${folder}
    BUILD_RPATH "$ORIGIN/../lib"
    INSTALL_RPATH "$ORIGIN/../lib")
  install(TARGETS ${name} RUNTIME DESTINATION ${folder})
  add_dependencies(programs ${name})
endfunction()
function(backup2_program name)
  backup2_program_in(sbin ${name} ${ARGN})
endfunction()
function(backup2_cgi name)  # run by the panel
  backup2_program_in(velcgi ${name} ${ARGN})
endfunction()

# Limits for ssh and scp. Below the install root it is only a template (docs/storage.md); packages
# put it where ssh reads it.
set(BACKUP2_SSH_CONFIG_DIR share/ssh_config.d CACHE STRING "Folder for ssh's configuration")
install(FILES ${PROJECT_SOURCE_DIR}/packaging/ssh_config.d/backup2.conf DESTINATION ${BACKUP2_SSH_CONFIG_DIR})

# ssh and scp that hold servers to the host keys of the first contact (vel/vel_ssh.h).
foreach(program ssh scp)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/backup2_ssh/ssh
                 ${PROJECT_BINARY_DIR}/lib/backup2_ssh/${program} COPYONLY)
  install(PROGRAMS ${PROJECT_SOURCE_DIR}/packaging/backup2_ssh/ssh DESTINATION lib/backup2_ssh RENAME ${program})
endforeach()
