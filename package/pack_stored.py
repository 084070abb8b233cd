#!/usr/bin/env python3
"""Packs a file into an archive without compressing it: pack_stored.py ARCHIVE FILE

The stand-in for PowerShell reads no compressed archives. The same file always gives the same bytes.
"""

import sys
import zipfile
from pathlib import Path

archive, file = map(Path, sys.argv[1:])
with zipfile.ZipFile(archive, "w", zipfile.ZIP_STORED) as packed:
    packed.writestr(zipfile.ZipInfo(file.name), file.read_bytes())
