# Locates a python3 that can write the Parakeet fixture networks (it needs the onnx and numpy
# modules, as Debian's python3-onnx and python3-numpy provide) and stores it in the cache as
# VOCARI_FIXTURE_PYTHON. Debian's interpreter is tried first: a python3 earlier on PATH (pyenv,
# a virtual environment) often lacks the modules.
function(vocari_find_fixture_python)
  if(VOCARI_FIXTURE_PYTHON)
    return()
  endif()
  foreach(_candidate /usr/bin/python3 python3)
    find_program(_python_path NAMES ${_candidate} NO_CACHE)
    if(_python_path)
      execute_process(COMMAND ${_python_path} -c "import onnx, numpy"
        RESULT_VARIABLE _python_ok OUTPUT_QUIET ERROR_QUIET)
      if(_python_ok EQUAL 0)
        set(VOCARI_FIXTURE_PYTHON ${_python_path} CACHE FILEPATH
          "python3 with onnx and numpy, for the Parakeet test and benchmark networks")
        return()
      endif()
    endif()
    unset(_python_path)
  endforeach()
  message(FATAL_ERROR "The Parakeet tests and benchmarks need python3 with the onnx and numpy "
    "modules (Debian: python3-onnx python3-numpy; scripts/setup installs them)")
endfunction()

set(VOCARI_FIXTURE_SCRIPT ${PROJECT_SOURCE_DIR}/tools/make_parakeet_fixtures.py)
