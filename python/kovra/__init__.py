"""kovra: run, check and debug accelerator models on the host, from Python.

    import kovra, numpy as np
    model = kovra.Model("model.pbtxt")
    out = model.run({"input": np.zeros((1, 12, 12, 3), np.float32)}, keep=True)
    conv1 = model.tensor("conv1")

Every failure raises kovra.Error (message, node, operator); the interpreter
and the model survive it.
"""

from ._errors import Error
from .builder import GraphBuilder, as_float, as_floats, as_int, as_ints, as_tensor, attr_value, tensor_proto
from .debug import CheckReport, Issue, check, compare, load_dump, verify
from .model import Model, Node, num_threads, set_num_threads

__version__ = "2.1.0"

__all__ = [
    "Error", "Model", "Node", "check", "CheckReport", "Issue", "load_dump", "compare", "verify",
    "GraphBuilder", "attr_value", "tensor_proto", "as_int", "as_float", "as_ints", "as_floats", "as_tensor",
    "set_num_threads", "num_threads",
]
