"""ZUBCocoa application analytics from Python.

A thin layer over the library's C interface (zub.h), standard library only::

    import zubcocoa

    zubcocoa.set_bundle_info("CFBundleIdentifier", "com.example.editor")
    with zubcocoa.session("your-app-key"):       # starts; flushes when the block ends
        zubcocoa.track_page("settings", duration=12)
        zubcocoa.track("export", format="pdf", pages=12)
        with zubcocoa.page("editor"):            # times the page view
            ...

Every call may come from any thread; tracking calls return at once (the library
sends from its own threads). Text is str (sent as UTF-8). A call the library
refuses (an empty page name, a URL without a host, text that is not UTF-8)
raises zubcocoa.Error, a ValueError carrying the library's status.

The shared library is found through $ZUBCOCOA_LIBRARY, else where `cmake
--install` put it beside this package, else on the loader's path.
"""

import atexit
import contextlib
import ctypes
import json
import threading
from collections import namedtuple

from . import _native

__all__ = [
    "Error", "DeliveryLimits", "version", "start", "session", "flush",
    "set_debug_enable", "set_smart_report", "set_session_timeout", "set_report_strategy",
    "set_period", "set_channel", "set_custom_app_version", "set_custom_user_id",
    "set_bundle_info", "bundle_info", "set_openudid_opt_out", "set_endpoints",
    "set_collector_address", "endpoints", "set_delivery_limits", "delivery_limits",
    "dropped_event_count", "set_log_sink",
    "on_application_did_become_active", "on_did_application_become_active",
    "on_will_application_resign_active", "on_will_application_enter_background",
    "on_will_application_will_terminate",
    "track_page_begin", "track_page_end", "track_page", "page", "track_active_begin",
    "track_active_end", "track", "track_begin", "track_end", "track_duration", "timed",
    "report_lm", "report_account", "device_id", "device_ids", "online_property",
]

_lib = _native.load()


class Error(ValueError):
    """A call the library refused; `status` is its zub_status code."""

    def __init__(self, function, status):
        self.function = function
        self.status = status
        super().__init__(f"{function}: {_lib.zub_status_text(status).decode()}")


DeliveryLimits = namedtuple(
    "DeliveryLimits", "max_events_in_memory journal_budget_bytes sync_interval_ms journal_enabled")


def _check(function, status):
    if status < 0:
        raise Error(function, status)
    return status


def _call(name, *arguments):
    return _check(name, getattr(_lib, name)(*arguments))


def _text(value):
    """str as UTF-8 bytes; None stays None (absent). Lone surrogates are passed on,
    so that the library refuses them as it refuses any other text that is not UTF-8."""
    if value is None:
        return None
    if not isinstance(value, str):
        raise TypeError(f"expected str, not {type(value).__name__}")
    return value.encode("utf-8", "surrogatepass")


def _read(name, *arguments):
    """Calls a function whose last argument is a char** result; returns the str."""
    out = ctypes.c_void_p()
    _call(name, *arguments, ctypes.byref(out))
    try:
        return ctypes.string_at(out.value).decode("utf-8")
    finally:
        _lib.zub_string_free(out)


@contextlib.contextmanager
def _pairs(pairs, kwargs):
    """The pairs of a custom event as a builder; None when none were given (then
    no pairs are sent; an empty dict sends empty pairs)."""
    if pairs is None and not kwargs:
        yield None
        return
    merged = dict(pairs or {})
    merged.update(kwargs)
    text = json.dumps(merged, ensure_ascii=False, allow_nan=False)
    args = _native.ArgsPointer()
    _call("zub_args_from_json", _text(text), ctypes.byref(args))
    try:
        yield args
    finally:
        _lib.zub_args_free(args)


def version():
    return _lib.zub_version().decode()


# ---- start, lifecycle, flush ---------------------------------------------------

def start(app_key):
    """Starts (or restarts) the library with the application key."""
    _call("zub_start", _text(app_key))


def flush(timeout=5.0):
    """Sends what can be sent now, waiting at most `timeout` seconds. True when the
    collector acknowledged every accepted event; False when some wait for later."""
    milliseconds = max(0, min(int(timeout * 1000), 0xFFFFFFFF))
    return _call("zub_flush", milliseconds) == _native.OK


@contextlib.contextmanager
def session(app_key, flush_timeout=5.0):
    """Starts the library and flushes it when the block ends (also on an exception),
    for scripts and tools that end on their own."""
    start(app_key)
    try:
        yield
    finally:
        flush(flush_timeout)


def on_application_did_become_active():
    _call("zub_on_application_did_become_active")


def on_did_application_become_active():
    _call("zub_on_did_application_become_active")


def on_will_application_resign_active():
    _call("zub_on_will_application_resign_active")


def on_will_application_enter_background():
    _call("zub_on_will_application_enter_background")


def on_will_application_will_terminate():
    _call("zub_on_will_application_will_terminate")


# ---- settings -----------------------------------------------------------------

def set_debug_enable(enable):
    _call("zub_set_debug_enable", bool(enable))


def set_smart_report(enable):
    _call("zub_set_smart_report", bool(enable))


def set_session_timeout(seconds):
    _call("zub_set_session_timeout_secs", int(seconds))


def set_report_strategy(strategy):
    _call("zub_set_report_strategy", int(strategy))


def set_period(seconds):
    _call("zub_set_period_secs", int(seconds))


def set_channel(channel):
    """None: no channel is sent."""
    _call("zub_set_channel", _text(channel))


def set_custom_app_version(version_text):
    """None: the bundle's version is sent again."""
    _call("zub_set_custom_app_version", _text(version_text))


def set_custom_user_id(user_id):
    """None: no user id is sent."""
    _call("zub_set_custom_user_id", _text(user_id))


def set_bundle_info(key, value):
    _call("zub_set_bundle_info", _text(key), _text(value))


def bundle_info(key):
    """The entry, or None when there is none."""
    try:
        return _read("zub_get_bundle_info", _text(key))
    except Error as e:
        if e.status == -4:  # ZUB_ERR_NOT_FOUND
            return None
        raise


def set_openudid_opt_out(opt_out):
    _call("zub_set_openudid_opt_out", bool(opt_out))


def set_endpoints(report_url, mid_url):
    _call("zub_set_endpoints", _text(report_url), _text(mid_url))


def set_collector_address(base_url):
    _call("zub_set_collector_address", _text(base_url))


def endpoints():
    """(report URL, registration URL) in force."""
    report, mid = ctypes.c_void_p(), ctypes.c_void_p()
    _call("zub_get_endpoints", ctypes.byref(report), ctypes.byref(mid))
    try:
        return ctypes.string_at(report.value).decode(), ctypes.string_at(mid.value).decode()
    finally:
        _lib.zub_string_free(report)
        _lib.zub_string_free(mid)


def set_delivery_limits(limits):
    native = _native.DeliveryLimits(*limits)
    _call("zub_set_delivery_limits", ctypes.byref(native))


def delivery_limits():
    native = _native.DeliveryLimits()
    _call("zub_get_delivery_limits", ctypes.byref(native))
    return DeliveryLimits(native.max_events_in_memory, native.journal_budget_bytes,
                          native.sync_interval_ms, bool(native.journal_enabled))


def dropped_event_count():
    count = ctypes.c_uint64()
    _call("zub_get_dropped_event_count", ctypes.byref(count))
    return count.value


_sink_lock = threading.Lock()
_sink = None  # the ctypes callback in use: it must outlive every call of it


def set_log_sink(function):
    """`function(line)` receives every line the library logs, on the library's
    threads; None removes it. It must not call the library."""
    global _sink
    with _sink_lock:
        if function is None:
            _call("zub_set_log_sink", _native.LogSink(), None)
            _sink = None
            return

        def sink(line, _user_data):
            try:
                function(line.decode("utf-8", "replace"))
            except Exception:  # a sink's failure stays in the sink
                pass

        callback = _native.LogSink(sink)
        _call("zub_set_log_sink", callback, None)
        _sink = callback  # the one it replaced no longer runs once the call returned


# The library's threads may log while the interpreter ends: no Python callback then.
atexit.register(lambda: set_log_sink(None) if _sink is not None else None)


# ---- tracking -----------------------------------------------------------------

def track_page_begin(name):
    _call("zub_track_page_view_begin", _text(name))


def track_page_end(name):
    _call("zub_track_page_view_end", _text(name))


def track_page(name, duration):
    """A page view with a duration the program measured (seconds)."""
    _call("zub_track_page", _text(name), int(duration))


@contextlib.contextmanager
def page(name):
    """Times a page view over the block."""
    track_page_begin(name)
    try:
        yield
    finally:
        track_page_end(name)


def track_active_begin():
    _call("zub_track_active_begin")


def track_active_end():
    _call("zub_track_active_end")


def track(event_id, pairs=None, /, **kwargs):
    """A custom event now: track("export", format="pdf") or track("export", {"format": "pdf"}).
    Values are str, int, float, bool, or lists and dicts of them."""
    with _pairs(pairs, kwargs) as args:
        _call("zub_track_custom_event", _text(event_id), args)


def track_duration(event_id, duration, pairs=None, /, **kwargs):
    """A custom event with a duration the program measured (seconds)."""
    with _pairs(pairs, kwargs) as args:
        _call("zub_track_custom_event_duration", _text(event_id), args, int(duration))


def track_begin(event_id, pairs=None, /, **kwargs):
    """Starts a timer for the identifier and pairs; track_end with the same ends it."""
    with _pairs(pairs, kwargs) as args:
        _call("zub_track_custom_event_begin", _text(event_id), args)


def track_end(event_id, pairs=None, /, **kwargs):
    with _pairs(pairs, kwargs) as args:
        _call("zub_track_custom_event_end", _text(event_id), args)


@contextlib.contextmanager
def timed(event_id, pairs=None, /, **kwargs):
    """Times a custom event over the block."""
    track_begin(event_id, pairs, **kwargs)
    try:
        yield
    finally:
        track_end(event_id, pairs, **kwargs)


def report_lm(account):
    _call("zub_report_lm", _text(account))


def report_account(account, account_type=0, ext=None):
    _call("zub_report_account", _text(account), int(account_type), _text(ext))


# ---- queries ------------------------------------------------------------------

def device_id(name="mid"):
    """One device identifier ("mid" is "" until the device is registered)."""
    return _read("zub_get_device_id", _text(name))


def device_ids():
    return json.loads(_read("zub_get_device_ids_json"))


def online_property(key):
    """A property of the configuration the server pushed ("" when there is none)."""
    return json.loads(_read("zub_get_online_property_json", _text(key)))
