#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the modules of the Python package that depend on the C headers: make_interface.py INCLUDE DESTINATION

`_interface.py` has the declarations of telvora.h in the form that cffi loads without a compiler and without a parser
(out of line, ABI mode). `keys.py` has the constants of keys.h.
"""
import os
import re
import sys

from cffi import FFI


def declarations(header: str) -> str:
    """The declarations of a C header, without preprocessor lines and attributes."""
    header = re.sub(r"#ifdef __cplusplus.*?#endif", "", header, flags=re.DOTALL)
    header = re.sub(r"^#.*\n", "", header, flags=re.MULTILINE)
    return re.sub(r"\b(TELVORA_API|TELVORA_MUST_USE)\b", "", header)


def keys(header: str) -> str:
    defined = re.findall(r'#define (k\w+)\s(?:\\\n)?\s*("\w+")', header)
    lines = [f"{name} = {text}" for name, text in defined]
    return "\n".join(['"""Keys of the dictionaries of telvora.h, and names of backends."""', *lines, ""])


def main() -> None:
    include, destination = sys.argv[1:]

    def read(name: str) -> str:
        with open(os.path.join(include, "telvora", name), encoding="utf-8") as file:
            return file.read()

    interface = FFI()
    interface.cdef(declarations(read("telvora.h")))
    interface.set_source("telvora._interface", None)
    interface.emit_python_code(os.path.join(destination, "_interface.py"))
    with open(os.path.join(destination, "keys.py"), "w", encoding="utf-8") as file:
        file.write(keys(read("keys.h")))


if __name__ == "__main__":
    main()
