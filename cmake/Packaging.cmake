# Installation layout and the Debian package.
#
#   bin/vocari, bin/vocari-transcribe, bin/vocari-models
#   lib/vocari/libonnxruntime.so.1          (only when ONNX Runtime is the private third-party
#                                            copy; a system ONNX Runtime is a dependency instead)
#   share/applications/vocari.desktop
#   share/icons/hicolor/<N>x<N>/apps/vocari.png, share/icons/hicolor/scalable/apps/vocari.svg
#
# The programs find the private library through RUNPATH $ORIGIN/../lib/vocari, so the
# installed tree can be moved as a whole. Included at the end of the top-level CMakeLists.txt,
# after every target is defined.

set(VOCARI_PRIVATE_LIBDIR lib/vocari)
set(VOCARI_ICON_SIZES 16 22 24 32 48 64 128 256)
set(_vocari_icon_svg "${PROJECT_SOURCE_DIR}/packaging/icons/vocari.svg")
set(_vocari_icon_dir "${PROJECT_BINARY_DIR}/icons/hicolor")

# The PNG icons are rendered from the SVG at build time rather than kept in the repository.
add_subdirectory("${PROJECT_SOURCE_DIR}/tools/icons" "${PROJECT_BINARY_DIR}/tools/icons")
set(_vocari_icon_pngs)
foreach(size IN LISTS VOCARI_ICON_SIZES)
  list(APPEND _vocari_icon_pngs "${_vocari_icon_dir}/${size}x${size}/apps/vocari.png")
endforeach()
add_custom_command(
  OUTPUT ${_vocari_icon_pngs}
  COMMAND vocari-icon-render "${_vocari_icon_svg}" "${_vocari_icon_dir}" ${VOCARI_ICON_SIZES}
  DEPENDS vocari-icon-render "${_vocari_icon_svg}"
  COMMENT "Rendering the application icon in every hicolor size"
  VERBATIM)
add_custom_target(vocari_icons ALL DEPENDS ${_vocari_icon_pngs})

# Programs: the application and the command-line tools that belong in a user's PATH.
set(_vocari_programs)
foreach(target IN ITEMS vocari vocari-transcribe vocari-models)
  if(TARGET ${target})
    list(APPEND _vocari_programs ${target})
  endif()
endforeach()
set_target_properties(${_vocari_programs} PROPERTIES
  INSTALL_RPATH "$ORIGIN/../${VOCARI_PRIVATE_LIBDIR}")
install(TARGETS ${_vocari_programs} RUNTIME DESTINATION bin)

# FindOnnxRuntime links the third-party copy with an extra -rpath to its folder in the
# checkout, which CMake's own RPATH rewriting leaves in front of the install RPATH. Set the
# installed programs' RUNPATH outright so that no path of the build machine ships.
foreach(target IN LISTS _vocari_programs)
  install(CODE "
    file(RPATH_SET FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/bin/${target}\"
         NEW_RPATH \"\$ORIGIN/../${VOCARI_PRIVATE_LIBDIR}\")")
endforeach()

if(OnnxRuntime_SOURCE STREQUAL "third_party")
  # Installed under its soname (the only name the programs ask for), as a real file.
  get_target_property(_ort_library OnnxRuntime::OnnxRuntime IMPORTED_LOCATION)
  get_target_property(_ort_soname OnnxRuntime::OnnxRuntime IMPORTED_SONAME)
  file(REAL_PATH "${_ort_library}" _ort_library)
  install(FILES "${_ort_library}" DESTINATION ${VOCARI_PRIVATE_LIBDIR} RENAME ${_ort_soname})
endif()

install(FILES "${PROJECT_SOURCE_DIR}/packaging/vocari.desktop" DESTINATION share/applications)
install(FILES "${_vocari_icon_svg}" DESTINATION share/icons/hicolor/scalable/apps)
foreach(size IN LISTS VOCARI_ICON_SIZES)
  install(FILES "${_vocari_icon_dir}/${size}x${size}/apps/vocari.png"
          DESTINATION share/icons/hicolor/${size}x${size}/apps)
endforeach()

# The Debian package: cpack -G DEB in the build tree writes vocari_<version>_amd64.deb.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vocari)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Vocari developers")
set(CPACK_PACKAGE_CONTACT "Vocari developers <vocari@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "private voice dictation for the Linux desktop")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The long description; CPack puts the summary above it and indents it as Debian wants.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION [[
Vocari lives in the system tray. While the dictation key is held it listens
to the microphone, recognises the speech on this computer and puts the text
at the cursor of the application in front. Audio never leaves the machine.

Recognition runs on NVIDIA Parakeet models through ONNX Runtime (downloaded
on request) or on the built-in PocketSphinx engine, which needs no download.]])
# dpkg-shlibdeps derives the libraries' packages; it cannot see the data and plugins loaded at
# run time: the built-in engine's English model and Qt's SVG icon engine.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "usr/${VOCARI_PRIVATE_LIBDIR}")
set(CPACK_DEBIAN_PACKAGE_DEPENDS "pocketsphinx-en-us, libqt6svg6")

include(CPack)
