"""A short script that reports to ZUBCocoa's collector through the zubcocoa module.

    PYTHONPATH=python ZUBCOCOA_LIBRARY=build/plain/libZUBCocoa.so \\
        python3 python/example.py http://127.0.0.1:47800

(Once installed with `cmake --install`, neither variable is needed.)
"""

import sys
import time

import zubcocoa


def main():
    collector = sys.argv[1] if len(sys.argv) > 1 else "http://127.0.0.1:47800"
    zubcocoa.set_bundle_info("CFBundleIdentifier", "com.example.pyscript")
    zubcocoa.set_bundle_info("CFBundleShortVersionString", "0.3")
    zubcocoa.set_collector_address(collector)
    zubcocoa.set_channel("pypi")

    with zubcocoa.session("pyscript-key", flush_timeout=10):  # flushes at the end of the block
        with zubcocoa.page("convert"):
            started = time.monotonic()
            zubcocoa.track("export", format="pdf", pages=12)
            zubcocoa.track_duration("render", round(time.monotonic() - started), quality="high")
        zubcocoa.report_account("user@example.com", account_type=2)
    print("mid", zubcocoa.device_id("mid") or "(not registered yet)")


if __name__ == "__main__":
    main()
