# The share sheet, and what makes desktops and their file managers offer it. Every file lies where its reader looks:
# packaging/desktop names the source, DESTINATION the reader.

set(desktop "${PROJECT_SOURCE_DIR}/packaging/desktop")
set(icons "${PROJECT_SOURCE_DIR}/packaging/icons")
set(id com.tarvinex.orlinth)

install(TARGETS orlinth-share RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")

install(FILES "${desktop}/${id}.share.desktop" DESTINATION "${CMAKE_INSTALL_DATADIR}/applications")
install(FILES "${desktop}/${id}.metainfo.xml" DESTINATION "${CMAKE_INSTALL_DATADIR}/metainfo")
install(FILES "${icons}/${id}.svg" DESTINATION "${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps")
install(FILES "${icons}/${id}-symbolic.svg" DESTINATION "${CMAKE_INSTALL_DATADIR}/icons/hicolor/symbolic/apps")

# Dolphin of KDE Frameworks 5.85 and later, and of 6. It wants menus outside the system's folders to be executable.
install(PROGRAMS "${desktop}/dolphin-servicemenu.desktop" RENAME ${id}.share.desktop
        DESTINATION "${CMAKE_INSTALL_DATADIR}/kio/servicemenus")
# GNOME Files and Caja load Python extensions, which differ only in the file manager's module; Nemo and Thunar read files
# of their own kinds.
function(orlinth_install_extension folder managerModule managerName managerPackage)
  set(extension "${PROJECT_BINARY_DIR}/${folder}-extension.py")
  configure_file("${desktop}/file-manager-extension.py.in" "${extension}" @ONLY)
  install(FILES "${extension}" RENAME orlinth-share.py DESTINATION "${CMAKE_INSTALL_DATADIR}/${folder}/extensions")
endfunction()
orlinth_install_extension(nautilus-python Nautilus "GNOME Files" python3-nautilus)
orlinth_install_extension(caja-python Caja Caja python3-caja)
install(FILES "${desktop}/nemo.nemo_action" RENAME ${id}.share.nemo_action
        DESTINATION "${CMAKE_INSTALL_DATADIR}/nemo/actions")
install(FILES "${desktop}/thunar-sendto.desktop" RENAME ${id}.share.desktop
        DESTINATION "${CMAKE_INSTALL_DATADIR}/Thunar/sendto")
# For those who have no extensions: to be linked into a user's own folder of scripts.
install(PROGRAMS "${desktop}/file-manager-script" DESTINATION "${CMAKE_INSTALL_DATADIR}/orlinth")
