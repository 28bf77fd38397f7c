"""The C interface of ZUBCocoa (zub.h) through ctypes: finding the shared library
and declaring the prototypes. The Pythonic calls are in __init__.py."""

import ctypes
import ctypes.util
import os

from . import _location

OK = 0
NOT_DELIVERED = 1


class Args(ctypes.Structure):
    """The opaque zub_args builder."""


ArgsPointer = ctypes.POINTER(Args)


class DeliveryLimits(ctypes.Structure):
    _fields_ = [
        ("max_events_in_memory", ctypes.c_uint64),
        ("journal_budget_bytes", ctypes.c_uint64),
        ("sync_interval_ms", ctypes.c_uint32),
        ("journal_enabled", ctypes.c_bool),
    ]


LogSink = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_void_p)

_status = ctypes.c_int
_text = ctypes.c_char_p
_out_text = ctypes.POINTER(ctypes.c_void_p)  # char**: kept as an address, freed by zub_string_free

# name: (result, argument types)
_PROTOTYPES = {
    "zub_status_text": (ctypes.c_char_p, [ctypes.c_int]),
    "zub_version": (ctypes.c_char_p, []),
    "zub_string_free": (None, [ctypes.c_void_p]),
    "zub_args_new": (ArgsPointer, []),
    "zub_args_from_json": (_status, [_text, ctypes.POINTER(ArgsPointer)]),
    "zub_args_free": (None, [ArgsPointer]),
    "zub_set_debug_enable": (_status, [ctypes.c_bool]),
    "zub_set_smart_report": (_status, [ctypes.c_bool]),
    "zub_set_session_timeout_secs": (_status, [ctypes.c_uint64]),
    "zub_set_report_strategy": (_status, [ctypes.c_int64]),
    "zub_set_period_secs": (_status, [ctypes.c_uint64]),
    "zub_set_channel": (_status, [_text]),
    "zub_set_custom_app_version": (_status, [_text]),
    "zub_set_custom_user_id": (_status, [_text]),
    "zub_set_bundle_info": (_status, [_text, _text]),
    "zub_get_bundle_info": (_status, [_text, _out_text]),
    "zub_set_openudid_opt_out": (_status, [ctypes.c_bool]),
    "zub_set_endpoints": (_status, [_text, _text]),
    "zub_set_collector_address": (_status, [_text]),
    "zub_get_endpoints": (_status, [_out_text, _out_text]),
    "zub_set_delivery_limits": (_status, [ctypes.POINTER(DeliveryLimits)]),
    "zub_get_delivery_limits": (_status, [ctypes.POINTER(DeliveryLimits)]),
    "zub_get_dropped_event_count": (_status, [ctypes.POINTER(ctypes.c_uint64)]),
    "zub_set_log_sink": (_status, [LogSink, ctypes.c_void_p]),
    "zub_start": (_status, [_text]),
    "zub_on_application_did_become_active": (_status, []),
    "zub_on_did_application_become_active": (_status, []),
    "zub_on_will_application_resign_active": (_status, []),
    "zub_on_will_application_enter_background": (_status, []),
    "zub_on_will_application_will_terminate": (_status, []),
    "zub_flush": (_status, [ctypes.c_uint32]),
    "zub_track_page_view_begin": (_status, [_text]),
    "zub_track_page_view_end": (_status, [_text]),
    "zub_track_page": (_status, [_text, ctypes.c_uint64]),
    "zub_track_active_begin": (_status, []),
    "zub_track_active_end": (_status, []),
    "zub_track_custom_event": (_status, [_text, ArgsPointer]),
    "zub_track_custom_event_begin": (_status, [_text, ArgsPointer]),
    "zub_track_custom_event_end": (_status, [_text, ArgsPointer]),
    "zub_track_custom_event_duration": (_status, [_text, ArgsPointer, ctypes.c_int64]),
    "zub_report_lm": (_status, [_text]),
    "zub_report_account": (_status, [_text, ctypes.c_uint64, _text]),
    "zub_get_device_id": (_status, [_text, _out_text]),
    "zub_get_device_ids_json": (_status, [_out_text]),
    "zub_get_online_property_json": (_status, [_text, _out_text]),
}


def _candidates():
    """Where the shared library may be, first match wins: $ZUBCOCOA_LIBRARY, the
    library installed beside this module (cmake --install), the loader's path."""
    explicit = os.environ.get("ZUBCOCOA_LIBRARY")
    if explicit:
        return [explicit]
    found = []
    if _location.LIBRARY:
        here = os.path.dirname(os.path.abspath(__file__))
        found.append(os.path.normpath(os.path.join(here, _location.LIBRARY)))
    found.append("libZUBCocoa.so.1")
    by_name = ctypes.util.find_library("ZUBCocoa")
    if by_name:
        found.append(by_name)
    return found


def load():
    errors = []
    for candidate in _candidates():
        try:
            library = ctypes.CDLL(candidate)
        except OSError as e:
            errors.append(f"{candidate}: {e}")
            continue
        for name, (result, arguments) in _PROTOTYPES.items():
            function = getattr(library, name)
            function.restype = result
            function.argtypes = arguments
        return library
    raise ImportError("zubcocoa cannot load libZUBCocoa (set ZUBCOCOA_LIBRARY to its path): " + "; ".join(errors))
