# Run when installing, with ORLINTH_SOURCE, ORLINTH_STAGE and ORLINTH_INCLUDEDIR set: the headers of the library go below
# one folder, and include each other by it (<orlinth/...>), so that a host's include path gets no name such as "base" or
# "platform". Of the code for Linux a host needs what it makes in its main, and nothing else.
cmake_policy(VERSION 3.25)
set(publicLinuxHeaders platform/linux/LinuxSystem.h)

file(REMOVE_RECURSE "${ORLINTH_STAGE}")
foreach(layer IN ITEMS base platform OrlinthCore)
  file(GLOB_RECURSE headers RELATIVE "${ORLINTH_SOURCE}/src" "${ORLINTH_SOURCE}/src/${layer}/*.h")
  foreach(header IN LISTS headers)
    if(header MATCHES "^platform/linux/" AND NOT header IN_LIST publicLinuxHeaders)
      continue()
    endif()
    file(READ "${ORLINTH_SOURCE}/src/${header}" text)
    string(REGEX REPLACE "#include \"((base|platform|OrlinthCore)/[^\"]+)\"" "#include \"orlinth/\\1\"" text "${text}")
    file(WRITE "${ORLINTH_STAGE}/${header}" "${text}")
  endforeach()
endforeach()
file(INSTALL "${ORLINTH_STAGE}/" DESTINATION "${ORLINTH_INCLUDEDIR}/orlinth")
