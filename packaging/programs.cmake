# A manual page and a bash completion for every program below apps/.

# kav_find_programs(OUT): the programs that are defined there.
function(kav_find_programs out)
  set(programs "")
  get_property(folders DIRECTORY ${PROJECT_SOURCE_DIR}/apps PROPERTY SUBDIRECTORIES)
  foreach(folder ${folders})
    get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target ${targets})
      get_target_property(type ${target} TYPE)
      if(type STREQUAL "EXECUTABLE" AND target MATCHES "^kav-")
        list(APPEND programs ${target})
      endif()
    endforeach()
  endforeach()
  list(SORT programs)
  set(${out} ${programs} PARENT_SCOPE)
endfunction()

# kav_make_from_help(OUTPUT PROGRAM SCRIPT VARIABLES...): what the awk script makes of its --help.
function(kav_make_from_help output program script)
  add_custom_command(
    OUTPUT ${output}
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/from_help.sh $<TARGET_FILE:${program}> ${output}
            ${CMAKE_CURRENT_SOURCE_DIR}/${script} ${ARGN}
    DEPENDS ${program} from_help.sh help_lines.awk ${script}
    VERBATIM)
endfunction()

kav_find_programs(kav_programs)
string(REPLACE ";" " " all_programs "${kav_programs}")
set(man_folder ${CMAKE_CURRENT_BINARY_DIR}/man)
set(completion_folder ${CMAKE_CURRENT_BINARY_DIR}/completions)
file(MAKE_DIRECTORY ${man_folder} ${completion_folder})

set(manuals "")
set(completions "")
foreach(program ${kav_programs})
  kav_make_from_help(${man_folder}/${program}.1.gz ${program} manual.awk
                     name=${program} version=${PROJECT_VERSION} "programs=${all_programs}")
  kav_make_from_help(${completion_folder}/${program} ${program} completion.awk name=${program})
  list(APPEND manuals ${man_folder}/${program}.1.gz)
  list(APPEND completions ${completion_folder}/${program})
endforeach()

add_custom_target(kav_manuals ALL DEPENDS ${manuals})
add_custom_target(kav_completions ALL DEPENDS ${completions})
install(FILES ${manuals} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES ${completions} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        COMPONENT tools)

# For the tests.
set(kav_programs ${kav_programs} PARENT_SCOPE)
