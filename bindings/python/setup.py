"""The version is that of the whole project, which CMakeLists.txt has."""

import pathlib
import re

from setuptools import setup

project = pathlib.Path(__file__).resolve().parents[2] / "CMakeLists.txt"
setup(version=re.search(r"^project\(Kelvo VERSION ([\d.]+)", project.read_text(encoding="utf-8"), re.MULTILINE)[1])
