"""Cores as systems keep them: packed. Needs no gdb."""

import bz2
import gzip
import lzma
import os
import shutil
import subprocess
import zlib

from .problems import FAILED, Problem

MAGIC_SIZE = 8
BLOCK = 1 << 20
# How a file begins, and what unpacks it: a module, or the command of that name.
FORMATS = (
    (b"\x1f\x8b", gzip),
    (b"\xfd7zXZ\0", lzma),
    (b"BZh", bz2),
    (b"\x28\xb5\x2f\xfd", "zstd"),
    (b"\x04\x22\x4d\x18", "lz4"),
)


def unpacked(path, folder):
    """The path of the file, or of what it holds packed, which is written into the folder."""
    with open(path, "rb") as file:
        head = file.read(MAGIC_SIZE)
    for magic, tool in FORMATS:
        if head.startswith(magic):
            return _unpack(path, tool, os.path.join(folder, "core"))
    return path


def _unpack(path, tool, to):
    try:
        with open(to, "wb") as out:
            if isinstance(tool, str):
                _with_command(path, tool, out)
            else:
                with tool.open(path, "rb") as packed:
                    _copy(packed, out)
            out.truncate()
    except (EOFError, lzma.LZMAError, zlib.error) as error:
        raise Problem(FAILED, f"{path} is damaged: {error}") from None
    except OSError as error:
        text = f"{error.strerror or error}: {path} cannot be unpacked into {os.path.dirname(to)}"
        raise Problem(FAILED, f"{text} (TMPDIR names another place)") from None
    return to


def _with_command(path, name, out):
    command = shutil.which(name)
    if command is None:
        text = f"{name} is missing, which unpacks {path}: install the package {name}"
        raise Problem(FAILED, text)
    with subprocess.Popen(
        [command, "-dcq", path],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    ) as run:
        _copy(run.stdout, out)
        said = run.stderr.read().decode("utf-8", "replace").strip()
    if run.returncode != 0:
        raise Problem(FAILED, f"{path} is damaged: {said or f'{name} ends with {run.returncode}'}")


def _copy(packed, out):
    """Leaves holes for what is zero: most of a core may be."""
    while block := packed.read(BLOCK):
        if block.count(0) == len(block):
            out.seek(len(block), os.SEEK_CUR)
        else:
            out.write(block)
