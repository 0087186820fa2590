"""python_folder.py PREFIX: the folder below PREFIX, relative to it, for modules in Python alone.

That is the one this Python looks into by itself, where it looks into one below PREFIX at all:
distributions have names of their own for it, and other ones for /usr/local than for /usr.
"""

import pathlib
import site
import sys
import sysconfig

prefix = pathlib.PurePath(sys.argv[1])
searched = [
    str(folder.relative_to(prefix))
    for folder in map(pathlib.PurePath, site.getsitepackages())
    if folder.is_relative_to(prefix)
]
own = [folder for folder in searched if folder.startswith("lib")]
otherwise = sysconfig.get_path("purelib", "posix_prefix", {"base": "."})
print(own[0] if own else str(pathlib.PurePath(otherwise)))
