#!/usr/bin/env python3
"""Runs a Windows test program under wine with COM5 mapped to a
pseudo-terminal and plays the device on its master side: each line
"AT" is answered "OK" in two pieces, "HUP" closes the master (the device
hangs up). wine maps COM ports through $WINEPREFIX/dosdevices/comN links.
    wine_pty.py WINE_RUN PROGRAM [ARGS...]"""
import os
import select
import subprocess
import sys
import threading
import time


def device(master):
    buf = b""
    while True:
        try:
            r, _, _ = select.select([master], [], [], 0.5)
        except (OSError, ValueError):
            return
        if not r:
            continue
        try:
            data = os.read(master, 256)
        except OSError:
            return
        buf += data
        while b"\n" in buf:
            line, buf = buf.split(b"\n", 1)
            line = line.strip()
            if line == b"AT":
                os.write(master, b"\r\n")
                time.sleep(0.02)
                os.write(master, b"OK\r\n")
            elif line == b"HUP":
                os.close(master)
                return


def main():
    wine_run, prog = sys.argv[1], sys.argv[2]
    prefix = os.environ.get("WINEPREFIX") or os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(prog))),
                                                          "wineprefix")
    master, slave = os.openpty()
    name = os.ttyname(slave)
    # The slave stays open here until the end: a master whose slave nobody
    # holds reads as hung up (EIO), which would end the device before the
    # program under test has opened its port.
    # Create the prefix first (the wrapper does on its first start).
    subprocess.run([wine_run, "cmd", "/c", "exit"], env=dict(os.environ, WINEPREFIX=prefix),
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    link = os.path.join(prefix, "dosdevices", "com5")
    os.makedirs(os.path.dirname(link), exist_ok=True)
    if os.path.lexists(link):
        os.remove(link)
    os.symlink(name, link)
    threading.Thread(target=device, args=(master,), daemon=True).start()
    env = dict(os.environ, WINEPREFIX=prefix, VEK_TEST_COM="COM5")
    rc = subprocess.run([wine_run, prog] + sys.argv[3:], env=env).returncode
    os.remove(link)
    os.close(slave)
    sys.exit(rc)


main()
