# Finds ONNX Runtime and provides the imported target OnnxRuntime::OnnxRuntime.
#
# Looked for in this order:
#   1. an installed onnxruntime CMake package (target onnxruntime::onnxruntime);
#   2. an installed libonnxruntime found by pkg-config;
#   3. the copy that scripts/setup-onnxruntime unpacks into third_party/onnxruntime.
#
# The third-party copy lives outside the system library path, so programs linking it carry its
# folder as RPATH and run without LD_LIBRARY_PATH. Sets OnnxRuntime_FOUND, OnnxRuntime_VERSION
# (when known) and OnnxRuntime_SOURCE ("cmake", "pkg-config" or "third_party").

if(TARGET OnnxRuntime::OnnxRuntime)
  set(OnnxRuntime_FOUND TRUE)
  return()
endif()

set(_ort_third_party "${PROJECT_SOURCE_DIR}/third_party/onnxruntime")

find_package(onnxruntime CONFIG QUIET)
if(onnxruntime_FOUND AND TARGET onnxruntime::onnxruntime)
  add_library(OnnxRuntime::OnnxRuntime INTERFACE IMPORTED)
  target_link_libraries(OnnxRuntime::OnnxRuntime INTERFACE onnxruntime::onnxruntime)
  set(OnnxRuntime_VERSION "${onnxruntime_VERSION}")
  set(OnnxRuntime_SOURCE "cmake")
endif()

if(NOT TARGET OnnxRuntime::OnnxRuntime)
  find_package(PkgConfig QUIET)
  if(PkgConfig_FOUND)
    pkg_check_modules(_ORT_PC QUIET IMPORTED_TARGET libonnxruntime)
    if(_ORT_PC_FOUND)
      add_library(OnnxRuntime::OnnxRuntime INTERFACE IMPORTED)
      target_link_libraries(OnnxRuntime::OnnxRuntime INTERFACE PkgConfig::_ORT_PC)
      set(OnnxRuntime_VERSION "${_ORT_PC_VERSION}")
      set(OnnxRuntime_SOURCE "pkg-config")
    endif()
  endif()
endif()

if(NOT TARGET OnnxRuntime::OnnxRuntime)
  find_path(OnnxRuntime_INCLUDE_DIR onnxruntime_cxx_api.h
    PATHS "${_ort_third_party}/include" NO_DEFAULT_PATH)
  find_library(OnnxRuntime_LIBRARY onnxruntime
    PATHS "${_ort_third_party}/lib" NO_DEFAULT_PATH)
  if(OnnxRuntime_INCLUDE_DIR AND OnnxRuntime_LIBRARY)
    add_library(OnnxRuntime::OnnxRuntime SHARED IMPORTED)
    set_target_properties(OnnxRuntime::OnnxRuntime PROPERTIES
      IMPORTED_LOCATION "${OnnxRuntime_LIBRARY}"
      IMPORTED_SONAME "libonnxruntime.so.1"
      INTERFACE_INCLUDE_DIRECTORIES "${OnnxRuntime_INCLUDE_DIR}")
    # Every program linking the library finds it through its RPATH (the build tree already
    # gets it from CMake; this also covers installed or copied binaries).
    get_filename_component(_ort_lib_dir "${OnnxRuntime_LIBRARY}" DIRECTORY)
    set_property(TARGET OnnxRuntime::OnnxRuntime APPEND PROPERTY
      INTERFACE_LINK_OPTIONS "LINKER:-rpath,${_ort_lib_dir}")
    if(EXISTS "${_ort_third_party}/VERSION")
      file(READ "${_ort_third_party}/VERSION" _ort_version_line)
      string(REGEX MATCH "^[0-9.]+" OnnxRuntime_VERSION "${_ort_version_line}")
    endif()
    set(OnnxRuntime_SOURCE "third_party")
  endif()
  mark_as_advanced(OnnxRuntime_INCLUDE_DIR OnnxRuntime_LIBRARY)
endif()

include(FindPackageHandleStandardArgs)
if(TARGET OnnxRuntime::OnnxRuntime)
  set(_ort_found_marker "${OnnxRuntime_SOURCE}")
endif()
find_package_handle_standard_args(OnnxRuntime
  REQUIRED_VARS _ort_found_marker
  VERSION_VAR OnnxRuntime_VERSION
  FAIL_MESSAGE "ONNX Runtime not found: install it system-wide or run scripts/setup (it unpacks a copy into third_party/onnxruntime)")
