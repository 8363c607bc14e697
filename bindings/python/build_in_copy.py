# SPDX-License-Identifier: MIT
"""Builds the package in a copy of this folder: setuptools would leave its working files here."""
import os
import shutil
import tempfile
from typing import Any, Optional


def build_wheel(wheel_directory: str, config_settings: Any = None, metadata_directory: Optional[str] = None) -> str:
    from setuptools import build_meta  # type: ignore[import]

    here, target = os.getcwd(), os.path.abspath(wheel_directory)
    with tempfile.TemporaryDirectory() as folder:
        copy = shutil.copytree(here, os.path.join(folder, "kvr"), ignore=shutil.ignore_patterns("__pycache__"))
        os.chdir(copy)
        try:
            return str(build_meta.build_wheel(target, config_settings))
        finally:
            os.chdir(here)
