# With ORLINTH_UNITY a library's files are compiled several at a time, for builds that are made once: most of the time
# goes into instantiating the same templates again for each file. The presets dev and release compile each file by
# itself, so that each includes what it uses; scripts/check builds the one, scripts/demo the other.
option(ORLINTH_UNITY "Compile the files of a library several at a time" OFF)

# orlinth_unite(NAME [ALONE FILE...]): in the folder that adds the library NAME. The files after ALONE stay by
# themselves: what they define for themselves has a name that another file of the library gives to its own, or they
# include a header of C after defining macros for it.
function(orlinth_unite name)
  cmake_parse_arguments(PARSE_ARGV 1 UNITE "" "" "ALONE")
  # That a variable hides another file's constant means nothing; within one file, the plain presets look for it.
  set_target_properties(${name} PROPERTIES UNITY_BUILD "${ORLINTH_UNITY}" UNITY_BUILD_BATCH_SIZE 10
    UNITY_BUILD_CODE_BEFORE_INCLUDE "#pragma GCC diagnostic ignored \"-Wshadow\"")
  set_source_files_properties(${UNITE_ALONE} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()
