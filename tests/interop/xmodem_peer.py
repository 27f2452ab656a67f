#!/usr/bin/env python3
"""The peer of a transfer, by the Python module xmodem, over the standard input and output.

  xmodem_peer.py send MODE FILE           MODE is xmodem (blocks of 128 bytes) or xmodem1k
  xmodem_peer.py receive crc|checksum FILE

Exits 0 when the module says that the transfer succeeded; prints on the standard error otherwise.
"""
import os
import select
import sys
import time

try:
    from xmodem import XMODEM
except ImportError:
    sys.exit("the Python module xmodem is missing (package python3-xmodem); script/bootstrap installs it")

# What went wrong is wanted, not the lines of the module where it did.
sys.excepthook = lambda kind, error, _: print(f"{kind.__name__}: {error}", file=sys.stderr)


def get(size, timeout=1):
    """What arrived of `size` bytes within `timeout` seconds, None if nothing did, as a serial port's read."""
    deadline = time.monotonic() + timeout
    data = b""
    while len(data) < size:
        ready, _, _ = select.select([0], [], [], max(deadline - time.monotonic(), 0))
        more = os.read(0, size - len(data)) if ready else b""
        if not more:
            break
        data += more
    return data or None


def put(data, timeout=1):
    return os.write(1, data) or None


def main():
    what, how, name = sys.argv[1:]
    if what == "send":
        with open(name, "rb") as source:
            result = XMODEM(get, put, mode=how).send(source)
    else:
        with open(name, "wb") as target:
            result = XMODEM(get, put).recv(target, crc_mode=1 if how == "crc" else 0)
    print(f"the module returned {result}", file=sys.stderr)
    return 0 if result is not None and result is not False else 1


sys.exit(main())
