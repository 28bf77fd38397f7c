# Where the installed shared library lies, relative to this package's folder.
# None in the source tree; `cmake --install` writes the installed path here.
LIBRARY = None
