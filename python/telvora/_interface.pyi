# The module that make_interface.py makes has no types.
from typing import Any

ffi: Any
