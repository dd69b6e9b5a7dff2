# Run by CPack on what it has gathered: directories are as open as Debian wants them, whatever the
# umask of whoever makes the package. (Files have their modes from their install rules.)
file(CHMOD_RECURSE ${CPACK_TEMPORARY_INSTALL_DIRECTORY} DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
