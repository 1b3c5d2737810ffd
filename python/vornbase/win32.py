"""The little of the Windows API that the debugger needs. Importable everywhere, of use on Windows."""

import ctypes
import sys

if hasattr(ctypes, "windll"):
    _GetLongPathNameW = ctypes.windll.kernel32.GetLongPathNameW
    _GetLongPathNameW.restype = ctypes.c_uint32
    _GetLongPathNameW.argtypes = (ctypes.c_wchar_p, ctypes.c_wchar_p, ctypes.c_uint32)
else:

    def _GetLongPathNameW(pathname, buffer, size):
        raise OSError("there are no short and long pathnames on " + sys.platform)


def GetLongPathName(pathname):
    """Return the pathname with each 8.3 component written out ("PROGRA~1" becomes "Program Files").

    Raises OSError when the file does not exist, or on another platform.
    """
    size = 260
    while True:
        buffer = ctypes.create_unicode_buffer(size)
        needed = _GetLongPathNameW(pathname, buffer, size)
        if needed == 0:
            raise ctypes.WinError()
        if needed < size:
            return buffer.value
        size = needed  # the name and its final null do not fit: the answer is the size that they need
