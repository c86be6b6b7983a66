#!/usr/bin/python3
"""slow_disk.py BELOW PLACE DELAY: shows the folder BELOW at PLACE, in the foreground. Each operation waits as many seconds
as the file DELAY says at that moment. The interpreter is the system's, to which the package python3-fusepy belongs."""

import os
import sys
import time

import fusepy


class SlowDisk(fusepy.Operations):
    def __init__(self, below, delay):
        self.below = below
        self.delay = delay

    def __call__(self, operation, path, *arguments):
        with open(self.delay) as delay:
            time.sleep(float(delay.read() or 0))
        return super().__call__(operation, self.below + path, *arguments)

    getxattr = None
    chmod = staticmethod(os.chmod)
    mkdir = staticmethod(os.mkdir)
    rmdir = staticmethod(os.rmdir)
    unlink = staticmethod(os.unlink)
    open = staticmethod(os.open)

    def create(self, path, mode, file_info=None):
        return os.open(path, os.O_RDWR | os.O_CREAT | os.O_TRUNC, mode)

    def read(self, path, size, offset, handle):
        return os.pread(handle, size, offset)

    def write(self, path, data, offset, handle):
        return os.pwrite(handle, data, offset)

    def truncate(self, path, length, handle=None):
        os.truncate(path, length)

    def fsync(self, path, only_data, handle):
        os.fsync(handle)

    def release(self, path, handle):
        os.close(handle)

    def rename(self, old, new):
        os.rename(old, self.below + new)

    def link(self, new, old):
        os.link(self.below + old, new)

    def readdir(self, path, handle):
        return [".", "..", *os.listdir(path)]

    def statfs(self, path):
        found = os.statvfs(path)
        return {name: getattr(found, name) for name in dir(found) if name.startswith("f_") and name != "f_fsid"}

    def utimens(self, path, times=None):
        os.utime(path, times)

    def getattr(self, path, handle=None):
        found = os.lstat(path)
        return {name: getattr(found, name) for name in ("st_mode", "st_nlink", "st_uid", "st_gid", "st_size", "st_atime",
                                                        "st_mtime", "st_ctime")}


if __name__ == "__main__":
    below, place, delay = sys.argv[1:]
    fusepy.FUSE(SlowDisk(below, delay), place, foreground=True)
