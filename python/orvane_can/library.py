"""liborvanecan.so through ctypes: finding and loading it, the prototypes of
the functions this package calls, and the header's named values.

The library is taken, in this order, from the ``library`` argument, the
environment variable ORVANE_CAN_LIBRARY, the library installed beside this
package, and finally the dynamic loader's own search (liborvanecan.so.0).
"""
import ctypes
import os
import threading

# Return codes made by the interface and the transport under it.
CAN_OK = 0
CAN_ERROR_TCP_SOCKET = 0x20000
CAN_ERROR_TCP_NOT_CONNECTED = 0x30000
CAN_ERROR_TCP_TIMEOUT = 0x40000
CAN_ERROR_TCP_INITIALIZING = 0x50000
CAN_ERROR_TCP_NOT_INITIALIZED = 0x60000
CAN_ERROR_INVALID_HANDLE = 0x900000
CAN_ERROR_INVALID_DEVICE_TYPE = 0x910000
CAN_ERROR_INVALID_PARAMETER = 0x920000
CAN_ERROR_FAILED = 0xFF

# A handle variable that holds no open device.
CAN_NO_HANDLE = -1

# Values of CANDeviceConnectState.
CAN_STATE_DISCONNECTED = 1
CAN_STATE_CONNECTING = 2
CAN_STATE_CONNECTED = 3
CAN_STATE_DISCONNECTING = 4
CAN_STATE_WAITING = 5

# Frame flag bits.
CAN_FLAG_EXTENDED = 0x01
CAN_FLAG_REMOTE = 0x02
CAN_FLAG_TIMESTAMP = 0x04

ENVIRONMENT_VARIABLE = "ORVANE_CAN_LIBRARY"
SONAME = "liborvanecan.so.0"

_c_int_p = ctypes.POINTER(ctypes.c_int)

# Frame callback with the gateway's time stamp: identifier, data, length,
# flags, handle, seconds, microseconds. The data comes as a plain address
# (read it with ctypes.string_at), the cheapest argument to convert.
CANCallbackEx = ctypes.CFUNCTYPE(None, ctypes.c_uint, ctypes.c_void_p, ctypes.c_int, ctypes.c_int, ctypes.c_int,
                                 ctypes.c_int, ctypes.c_int)

_PROTOTYPES = {
    "CANOpenDevice": [_c_int_p, ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_char_p, ctypes.c_int],
    "CANCloseDevice": [ctypes.c_int],
    "CANDeviceConnectState": [ctypes.c_int],
    "CANStartAlive": [ctypes.c_int, ctypes.c_uint],
    "CANErrorMessage": [ctypes.c_int, ctypes.c_char_p, ctypes.c_int],
    "CANSetGlobals": [ctypes.c_int, ctypes.c_uint, ctypes.c_ubyte, ctypes.c_int, ctypes.c_int, ctypes.c_int],
    "CANSetTime": [ctypes.c_int, ctypes.c_int, ctypes.c_int],
    "CANWrite": [ctypes.c_int, ctypes.c_int, ctypes.c_char_p, ctypes.c_int, ctypes.c_int],
    "CANSetCallbackEx": [ctypes.c_int, CANCallbackEx],
    "CANSetMaxSizePerQueue": [ctypes.c_int, ctypes.c_uint],
    "CANGetMessage": [ctypes.c_int, _c_int_p, _c_int_p, ctypes.c_char_p, ctypes.POINTER(ctypes.c_ubyte), _c_int_p,
                      _c_int_p, _c_int_p],
}

_loaded = {}
_loaded_lock = threading.Lock()


def _installed_path():
    """The library that was installed together with this package, if any."""
    try:
        from . import _installed  # written by the install step
    except ImportError:
        return None
    path = os.path.join(_installed.LIBDIR, SONAME)
    return path if os.path.exists(path) else None


def load(path=None):
    """The loaded library (one per path for the whole process), with the
    prototypes set. Raises OSError when it cannot be loaded."""
    path = path or os.environ.get(ENVIRONMENT_VARIABLE) or _installed_path() or SONAME
    with _loaded_lock:
        lib = _loaded.get(path)
        if lib is None:
            lib = ctypes.CDLL(path)
            for name, argtypes in _PROTOTYPES.items():
                function = getattr(lib, name)
                function.argtypes = argtypes
                function.restype = ctypes.c_int
            _loaded[path] = lib
        return lib


def error_text(lib, code):
    """The library's own text for a return code."""
    text = ctypes.create_string_buffer(256)
    lib.CANErrorMessage(code, text, len(text))
    return text.value.decode("latin-1")
