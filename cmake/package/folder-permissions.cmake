# Run by cpack on what it is about to pack: folders have the umask of whoever has called it.
file(GLOB_RECURSE folders LIST_DIRECTORIES true ${CPACK_TEMPORARY_DIRECTORY}/*)
foreach(folder IN LISTS folders)
  if(IS_DIRECTORY ${folder} AND NOT IS_SYMLINK ${folder})
    file(CHMOD ${folder} PERMISSIONS
         OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endif()
endforeach()
