"""Sentences for what the system refuses, in place of its own words."""

from __future__ import annotations

import errno
import os
import re

# With the file's name at {0}.
_SENTENCES = {
    errno.ENOENT: "{0} isn't there.",
    errno.EACCES: "{0} is protected: you may not open or change it.",
    errno.EPERM: "{0} is protected: you may not open or change it.",
    errno.EROFS: "{0} can't be written: its file system is for reading only.",
    errno.EEXIST: "{0} is there already, as something else than what is wanted.",
    errno.EISDIR: "{0} is a folder, not a file.",
    errno.ENOTDIR: "{0} can't be reached: something on the way to it is a file, not a folder.",
    errno.ENOSPC: "There is no space left on the disk for {0}.",
    errno.EDQUOT: "Your share of the disk is used up: there is no space for {0}.",
    errno.EFBIG: "{0} would become larger than files may be here.",
    errno.ENAMETOOLONG: "The name of {0} is too long.",
    errno.ELOOP: "{0} can't be reached: links lead round in a circle.",
    errno.EIO: "The disk failed at {0}.",
    errno.EMFILE: "Too many files are open: {0} can't be opened too.",
}
# Why a sentence that tells the name already can't go on; "can't be read: there is no such file".
_REASONS = {
    errno.ENOENT: "there is no such file",
    errno.EACCES: "it is protected",
    errno.EPERM: "it is protected",
    errno.EROFS: "the file system is for reading only",
    errno.EISDIR: "it is a folder",
    errno.ENOTDIR: "something on the way to it is a file, not a folder",
    errno.ENOSPC: "there is no space left on the disk",
    errno.ENAMETOOLONG: "its name is too long",
    errno.ELOOP: "links lead round in a circle",
    errno.EIO: "the disk failed",
    errno.ENOEXEC: "it is no program for this machine",
}
_BESIDE = re.compile(r"\.(.+)\.[0-9a-f]{16}\.tmp\Z")  # a file that is to replace another


def sentence(error: OSError) -> str:
    """What an error of the system means, with the name of the file where there is one."""
    if error.errno is None:
        return str(error)
    if error.filename is None:
        text = reason(error)
        return f"{text[:1].upper()}{text[1:]}."
    name = _wanted_name(os.fsdecode(error.filename))
    folder = os.path.dirname(name)
    if error.errno == errno.ENOENT and folder and not os.path.isdir(folder):
        return f"{name} isn't there: there is no folder {folder}."
    if error.errno in _SENTENCES:
        return _SENTENCES[error.errno].format(name)
    return f"{name} can't be used: {_plain(error)}."


def reason(error: OSError) -> str:
    """The same in a few words, for a sentence that names the file."""
    return _REASONS.get(error.errno or 0) or _plain(error)


def _plain(error: OSError) -> str:
    text = error.strerror or str(error)
    return text[:1].lower() + text[1:]


def _wanted_name(path: str) -> str:
    """The file that was to be written, where the error is of its temporary neighbour."""
    folder, name = os.path.split(path)
    found = _BESIDE.match(name)
    return os.path.join(folder, found[1]) if found else path
