"""What measurements are made with: transfers over a paced line, whole updates, counted instructions."""
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BIN = ROOT / "build/bench/bin"
ARM = ROOT / "build/bench-armhf"
KIB = 1024
BLOCK = 1024
PACKET = 1029
UNPACED = 0


class Broken(Exception):
    """A run that did not do what it was to do; its figures would mean nothing."""


def tool(name):
    found = shutil.which(name)
    if not found:
        raise Broken(f"{name} is missing; script/bootstrap --full installs it")
    return found


def watch_memory(process, seen):
    """Adds to `seen` the KiB that the process has had in memory at most, for as long as it runs."""
    status = pathlib.Path(f"/proc/{process.pid}/status")
    while process.returncode is None:
        match = re.search(r"VmHWM:\s*(\d+)", status.read_text() if status.exists() else "")
        if match:
            seen.append(int(match[1]))
        time.sleep(0.005)


class Cost:
    """A finished process: seconds from start to exit, seconds of processor, its output, and, if that is watched, KiB
    of memory at most (the kernel's own figure, ru_maxrss, counts what this program had before the other began)."""

    def __init__(self, command, env=None, stdin=None, stdout=None, memory=False):
        with tempfile.TemporaryFile() as errors, tempfile.TemporaryFile() as output:
            start = time.monotonic()
            process = subprocess.Popen([str(part) for part in command], env={**os.environ, **(env or {})},
                                       stdin=stdin, stdout=stdout or output, stderr=errors)
            seen = []
            watcher = threading.Thread(target=watch_memory, args=(process, seen))
            if memory:
                watcher.start()
            _, status, usage = os.wait4(process.pid, 0)
            self.wall = time.monotonic() - start
            process.returncode = os.waitstatus_to_exitcode(status)
            if memory:
                watcher.join()
            for stream in (output, errors):
                stream.seek(0)
            self.output = output.read().decode(errors="replace")
            self.errors = errors.read().decode(errors="replace")
        self.cpu = usage.ru_utime + usage.ru_stime
        self.peak_kib = seen[-1] if seen else None
        if process.returncode != 0:
            raise Broken(f"{command[0]} exited with {process.returncode}: {self.errors[-500:]}")


def wait_for(path, process):
    for _ in range(500):
        if path.exists():
            return
        if process.poll() is not None:
            break
        time.sleep(0.01)
    raise Broken(f"{process.args[0]} made no port")


def started(command, port, output):
    process = subprocess.Popen([str(part) for part in command], stdout=output, stderr=subprocess.STDOUT)
    try:
        wait_for(port, process)
    except Broken:
        process.kill()
        process.wait()
        raise
    return process


def ended(process):
    try:
        if process.wait(timeout=30) != 0:
            raise Broken(f"{process.args[0]} exited with {process.returncode}")
    finally:
        if process.poll() is None:
            process.kill()
            process.wait()


def ours(port, baud, file, env=None, prefix=(), memory=False):
    return Cost([*prefix, BIN / "send-file", port, baud or 3000000, file], env=env, memory=memory)


def peer(port, _baud, file):
    with open(port, "r+b", buffering=0) as line:
        return Cost([tool("sx"), "-k", file], stdin=line, stdout=line)


def transfer(sender, baud, size, **how):
    """One file through one receiver. Returns the sender's Cost and the receiver's figures."""
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        file = folder / "file"
        if size <= 16 * KIB * KIB:
            file.write_bytes(os.urandom(size))
        else:
            with open(file, "wb") as sparse:
                sparse.truncate(size)
        keep = ["--out", folder / "received"] if size <= 16 * KIB * KIB else []
        with open(folder / "figures", "w+") as figures:
            receiver = started([BIN / "paced-receiver", "--baud", baud, "--link", folder / "port", *keep],
                               folder / "port", figures)
            try:
                cost = sender(folder / "port", baud, file, **how)
            finally:
                ended(receiver)
            figures.seek(0)
            result = json.loads(figures.readlines()[-1])
        if keep and (folder / "received").read_bytes()[:size] != file.read_bytes():
            raise Broken("the receiver has other bytes than the file")
        return cost, result


def update(baud, size, options=(), prefix=(), verb="update", memory=False):
    """A whole update of a CAN controller by peripheralctl. Returns its Cost."""
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        (folder / "image").write_bytes(os.urandom(size))
        (folder / "loader").write_bytes(os.urandom(4 * KIB))
        settings = {"updatelist": "xmodem", "xmodemsource-image": folder / "image",
                    "xmodemsource-loader": folder / "loader", "xmodemportname": folder / "port",
                    "xmodemspeed": baud or 3000000, "xmodemramaddress": "1000", "xmodemflashaddress": "8000"}
        sets = [part for key, value in settings.items() for part in ("--set", f"{key}={value}")]
        with open(folder / "device", "w") as log:
            device = started([BIN / "bootloader-simulator", "--baud", baud, "--link", folder / "port", "--once",
                              "--dump-flash", folder / "flash"], folder / "port", log)
            try:
                cost = Cost([*prefix, BIN / "peripheralctl", verb, *sets,
                             *[str(option).replace("FOLDER", name) for option in options]],
                            memory=memory)
                if verb == "update":
                    ended(device)
            finally:
                device.terminate()
                device.wait()
        if verb == "update" and (folder / "flash").read_bytes()[:size] != (folder / "image").read_bytes():
            raise Broken("the device has other bytes than the image")
        return cost


def engine_functions(annotated):
    """Function -> instructions of its own, of the engine's functions, from callgrind_annotate's listing."""
    counts = {}
    for line in annotated.splitlines():
        match = re.match(r"\s*([\d,]+)\s+\S*?:(.*(?:CXModem::|AddToCrc|CrcOf).*) \[", line)
        if match:
            counts[match[2]] = counts.get(match[2], 0) + int(match[1].replace(",", ""))
    return counts


def callgrind(mode, packets):
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder) / "out"
        Cost([tool("valgrind"), "--tool=callgrind", f"--callgrind-out-file={out}", BIN / "engine-cost", mode, packets])
        return engine_functions(Cost([tool("callgrind_annotate"), "--threshold=100", "--show-percs=no", out]).output)


def emulated(mode, packets):
    """The same for 32-bit ARM: one line of QEMU's log for each instruction that it has executed."""
    program = ARM / "bin/engine-cost"
    ranges = []
    for line in Cost([tool("nm"), "-CS", program]).output.splitlines():
        match = re.match(r"(\w+) (\w+) [tTwW] (.*(?:CXModem::|AddToCrc|CrcOf).*)", line)
        if match:
            ranges.append((int(match[1], 16) & ~1, int(match[2], 16), match[3]))
    names = {address: name for start, size, name in ranges for address in range(start, start + size)}
    counts = {}
    with tempfile.TemporaryDirectory() as folder:
        log = pathlib.Path(folder) / "log"
        Cost([tool("qemu-arm"), "-L", "/usr/arm-linux-gnueabihf", "-singlestep", "-d", "exec,nochain",
              "-dfilter", f"{min(names):#x}..{max(names):#x}", "-D", log, program, mode, packets])
        with open(log) as lines:
            for line in lines:
                name = names.get(int(line.split("/", 2)[1], 16)) if line.startswith("Trace") else None
                if name:
                    counts[name] = counts.get(name, 0) + 1
    if not counts:
        raise Broken("QEMU's log names none of the engine's functions")
    return counts


def per_byte(count, mode, few=2, more=6):
    """Instructions per payload byte: of packet building and CRC, or of packet reading and CRC; and of all."""
    before, after = count(mode, few), count(mode, more)
    costs = {name: (after[name] - before.get(name, 0)) / ((more - few) * BLOCK) for name in after}
    whole = "BuildPacket" if mode == "send" else "ReadPacket"
    part = sum(cost for name, cost in costs.items() if re.search(f"{whole}|Crc", name))
    return part, sum(costs.values())


def stripped_kib(strip, library):
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder) / "stripped"
        Cost([tool(strip), "-o", out, library])
        return out.stat().st_size / KIB


def heap_peak_kib(run):
    """Bytes on the heap at most, in KiB, of what `run` starts behind the prefix that it is given."""
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder) / "massif"
        run([tool("valgrind"), "--tool=massif", "--peak-inaccuracy=0.0", f"--massif-out-file={out}"])
        return max(int(size) for size in re.findall(r"^mem_heap_B=(\d+)", out.read_text(), re.M)) / KIB


def allocations(size):
    """How often valgrind saw memory asked for while a file of that size was sent."""
    cost, _ = transfer(ours, UNPACED, size, prefix=[tool("valgrind")])
    return int(re.search(r"total heap usage: ([\d,]+) allocs", cost.errors)[1].replace(",", ""))


def calls_per_packet(size, baud):
    """Writes to and reads from the port per packet of 1029 bytes, and all system calls."""
    with tempfile.TemporaryDirectory() as folder:
        log = pathlib.Path(folder) / "calls"
        _, figures = transfer(ours, baud, size, prefix=[tool("strace"), "-f", "-y", "-o", log])
        lines = log.read_text(errors="replace").splitlines()
    begin = next(i for i, line in enumerate(lines) if re.search(r" write\(\d+<.*/dev/p", line))
    end = max(i for i, line in enumerate(lines) if re.search(r" write\(\d+<.*/dev/p", line))
    lines = lines[begin:end]
    return [len([line for line in lines if re.search(kind, line)]) / figures["blocks"]
            for kind in (r" write\(\d+<.*/dev/p", r" read\(\d+<.*/dev/p", r"^\d+ +\w+\(")]
