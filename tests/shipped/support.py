"""What the tests of shipped files share."""
import os
import pathlib
import subprocess

SOURCE = pathlib.Path(os.environ["SOURCE"]).resolve()
BUILD = pathlib.Path(os.environ["BUILD"]).resolve()
CXX = os.environ["CXX"]
BIN = BUILD / "bin"
PROGRAMS = ["peripheralctl", "bootloader-simulator"]
LIBRARIES = ["libPeripheralLoader.so", "libPeripheralPlatform.so"]


def output_of(*command, **options):
    """What a command prints. Fails, showing it, when the command does."""
    done = subprocess.run([str(word) for word in command], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=240, **options)
    assert done.returncode == 0, f"{command} exited with {done.returncode}:\n{done.stdout}"
    return done.stdout
