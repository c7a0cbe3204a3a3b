# Test script: installs the build into a fresh prefix and runs the package from
# there, in a folder away from the build tree, with the run path of the
# installed extension as the only way to libflatmorph.so.
# Arguments: -DBUILD_DIR=... -DPREFIX=... -DPYTHON=... -DPYTHON_DIR=...
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
                OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH PYTHONPATH=${PREFIX}/${PYTHON_DIR}
          ${PYTHON} -B -c "import numpy, flatmorph; assert flatmorph.__file__.startswith('${PREFIX}'); \
print(flatmorph.closing(numpy.array([[5, 1, 7, 7, 2]], numpy.uint8), numpy.ones((1, 3), bool)))"
  WORKING_DIRECTORY ${PREFIX}
  OUTPUT_VARIABLE printed COMMAND_ERROR_IS_FATAL ANY)
if(NOT printed STREQUAL "[[5 5 7 7 2]]\n")
  message(FATAL_ERROR "the installed package printed ${printed}")
endif()
