# The tree that a release has: cmake --install BUILD --prefix FOLDER. scripts/package.sh packs it. All files
# are in the folder itself, because the installer puts that folder on PATH.
install(TARGETS nvksprovider keywarden RUNTIME DESTINATION . COMPONENT release)
# A release has no import library.
install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION . COMPONENT release)
install(DIRECTORY docs DESTINATION . COMPONENT release)

# The symbols, for gdb, beside the files that they belong to. In the archive, not in the installer.
install(FILES $<TARGET_FILE:nvksprovider>.debug $<TARGET_FILE:keywarden>.debug
        DESTINATION . COMPONENT symbols)
