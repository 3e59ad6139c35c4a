"""Version of libnpucpu.so.

The version is set once, in the top-level CMakeLists.txt, and CMake writes it
to `npucpu-version.txt`: beside the library in a build tree, and under
`<prefix>/share/npucpu/` in an installed tree. The library exports no version
symbol, so the file that belongs to the library found is the answer.
"""
from pathlib import Path

from . import _lib

VERSION_FILE = "npucpu-version.txt"


class VersionUnknown(LookupError):
    pass


def version_file_candidates(library_path):
    """Where the version file of the library at `library_path` may be."""
    lib_dir = Path(library_path).resolve().parent
    # <build>/, then <prefix>/lib/ and <prefix>/lib/<multiarch>/.
    return [lib_dir / VERSION_FILE] + [
        up / "share" / "npucpu" / VERSION_FILE for up in (lib_dir.parent, lib_dir.parent.parent)]


def version(library=None):
    """Version text ("0.1.0") of the library at `library` (a path, a loaded
    Library, or None for the usual search)."""
    path = library.path if isinstance(library, _lib.Library) else _lib.find_library(library)
    candidates = version_file_candidates(path)
    for candidate in candidates:
        if candidate.is_file():
            text = candidate.read_text(encoding="utf-8").strip()
            if text:
                return text
    raise VersionUnknown("no version file for %s (looked in: %s)"
                         % (path, ", ".join(str(c) for c in candidates)))
