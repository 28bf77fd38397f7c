# Installs the zubcocoa Python module (python/zubcocoa) into Python 3's
# site-packages folder under the install prefix, and tells the module where the
# shared library was installed relative to itself, so that `import zubcocoa`
# works without setting anything, wherever the prefix is.
#
# ZUB_PYTHON_SITE_DIR is relative to the prefix (or absolute). The default is the
# folder Debian's python3 reads for that prefix: lib/python3.X/dist-packages, as
# /usr/local/lib/python3.X/dist-packages for the default prefix (other systems:
# site-packages). For a prefix Python does not read, set PYTHONPATH to it.
find_program(ZUB_PYTHON3 NAMES python3 HINTS /usr/bin DOC "Python 3 for the zubcocoa module")
if(NOT ZUB_PYTHON_SITE_DIR)
  set(ZUB_PYTHON_SITE_GUESS "lib/python3/dist-packages")
  if(ZUB_PYTHON3)
    execute_process(
      COMMAND ${ZUB_PYTHON3} -c "import sys; print('lib/python%d.%d/%s' % (sys.version_info[0], sys.version_info[1], 'dist-packages' if any(p.endswith('dist-packages') for p in sys.path) else 'site-packages'))"
      OUTPUT_VARIABLE ZUB_PYTHON_SITE_GUESS OUTPUT_STRIP_TRAILING_WHITESPACE)
  endif()
  set(ZUB_PYTHON_SITE_DIR "${ZUB_PYTHON_SITE_GUESS}" CACHE STRING
    "Where the zubcocoa Python module is installed (relative to the prefix, or absolute)")
endif()

install(DIRECTORY python/zubcocoa DESTINATION ${ZUB_PYTHON_SITE_DIR}
  PATTERN "__pycache__" EXCLUDE PATTERN "_location.py" EXCLUDE)
# The library's installed path relative to the module's folder (absolute when
# either folder is given as an absolute path).
set(ZUB_PY_MODULE_DIR "${ZUB_PYTHON_SITE_DIR}/zubcocoa")
if(IS_ABSOLUTE "${ZUB_PY_MODULE_DIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(ZUB_PY_LIBRARY "${CMAKE_INSTALL_FULL_LIBDIR}/libZUBCocoa.so.${PROJECT_VERSION_MAJOR}")
else()
  file(RELATIVE_PATH ZUB_PY_LIBRARY "/root/${ZUB_PY_MODULE_DIR}"
    "/root/${CMAKE_INSTALL_LIBDIR}/libZUBCocoa.so.${PROJECT_VERSION_MAJOR}")
endif()
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/python/_location.py
  "# Written by cmake --install: the shared library, relative to this folder.\nLIBRARY = \"${ZUB_PY_LIBRARY}\"\n")
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/python/_location.py DESTINATION ${ZUB_PY_MODULE_DIR})
