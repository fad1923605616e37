# Run by CPack once the components are installed for packaging, before the packages are made: settings
# installed under the packages' prefix (/usr/etc) move to /etc, where Debian keeps them.
file(GLOB settings_folders LIST_DIRECTORIES true "${CPACK_TEMPORARY_DIRECTORY}/*/usr/etc")
foreach(folder IN LISTS settings_folders)
  get_filename_component(root "${folder}/../.." ABSOLUTE)
  file(RENAME "${folder}" "${root}/etc")
endforeach()
