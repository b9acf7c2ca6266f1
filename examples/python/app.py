# A host in Python, over the C interface: reports an event and a share, and prints what the server says until Enter is pressed.
#
#     LD_LIBRARY_PATH=DIR/lib python3 app.py [API-HOST]
import ctypes
import json
import sys

library = ctypes.CDLL("libkestrova.so.0.1")
library.kestrova_status_name.restype = ctypes.c_char_p

JSONCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(ctypes.c_char), ctypes.c_size_t)
Run = ctypes.CFUNCTYPE(None, ctypes.c_void_p)
Executor = ctypes.CFUNCTYPE(None, ctypes.c_void_p, Run, ctypes.c_void_p)


class Options(ctypes.Structure):
    """kestrova_options, member by member."""

    _fields_ = [
        ("struct_size", ctypes.c_size_t),
        ("app_id", ctypes.c_char_p),
        ("secret", ctypes.c_char_p),
        ("api_host", ctypes.c_char_p),
        ("api_version", ctypes.c_char_p),
        ("home_directory", ctypes.c_char_p),
        ("transfer_directory", ctypes.c_char_p),
        ("transfer_service_path", ctypes.c_char_p),
        ("launch_command", ctypes.POINTER(ctypes.c_char_p)),
        ("request_timeout", ctypes.c_double),
        ("max_response_bytes", ctypes.c_uint64),
        ("debug", ctypes.c_int),
        ("context", ctypes.c_void_p),
        ("on_user_id", JSONCallback),
        ("on_app_identifier", JSONCallback),
        ("on_notifications", JSONCallback),
        ("on_trace", JSONCallback),
        ("executor", Executor),
    ]


class Error(Exception):
    """A code other than KESTROVA_OK."""


def call(function, *arguments):
    status = getattr(library, function)(*arguments)
    if status != 0:
        raise Error(f"{function}: {library.kestrova_status_name(status).decode()}")


class Client:
    """A started client; a context that ends with its release."""

    def __init__(self, app_id, secret, api_host, on_user_id):
        # The library calls it for as long as the client is there, so it must not be collected before.
        self._on_user_id = JSONCallback(lambda _, text, length: on_user_id(json.loads(text[:length])))
        options = Options(ctypes.sizeof(Options), app_id.encode(), secret.encode(), api_host.encode(), on_user_id=self._on_user_id)
        self._handle = ctypes.c_void_p()
        call("kestrova_start", ctypes.byref(options), ctypes.byref(self._handle))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        call("kestrova_release", self._handle)

    def event(self, name, data=None):
        call("kestrova_event", self._handle, name.encode(), None if data is None else json.dumps(data).encode())

    def submit_share(self, share):
        call("kestrova_submit_share", self._handle, json.dumps(share).encode())

    def flush(self):
        call("kestrova_flush", self._handle)


def main():
    host = sys.argv[1] if len(sys.argv) > 1 else "localhost:8443"
    tell = lambda user: print(f'The server knows this user as "{user}"', flush=True)
    with Client("com.example.app", "a secret of mine", host, tell) as client:
        client.event("gif-viewed", {"gif": "g169a7", "loops": 2})
        client.flush()
        client.submit_share({"URL": "https://share.example.com/ab"})
        print("Press Enter to end.", flush=True)
        sys.stdin.readline()


if __name__ == "__main__":
    main()
