# With Ninja, CMake re-runs moc for a target only when a file it already knows changes, so a
# header added later (a new node, a new host node picked up by a glob) would stay without its
# meta-object until the build directory is made afresh. Call this in the directory that
# creates `target`, after all its sources are added: the list of sources becomes an input of
# that directory's configuration, which moc's dependency list includes, so a changed list
# makes moc run again.
function(kest_autogen_follows_sources target)
    get_target_property(sources ${target} SOURCES)
    set(list_file ${CMAKE_CURRENT_BINARY_DIR}/${target}-sources)
    file(CONFIGURE OUTPUT ${list_file}.in CONTENT "${sources}\n" @ONLY)
    configure_file(${list_file}.in ${list_file}.txt COPYONLY)
endfunction()
