"""Checking models and comparing tensors, layer by layer.

Everything here runs the library's own check and comparison engine: the
records are those `kovra check`, `kovra compare --json` and `kovra verify --json`
produce, read back from the library's JSON.
"""

import json
import os
from dataclasses import dataclass, field
from typing import Any, Dict, List, Mapping, Optional, Sequence, Tuple, Union

import numpy as np

from . import _kovra
from .model import Model, Names, PathOrBytes, _names, npy_feed

PathLike = Union[str, os.PathLike]


@dataclass
class Issue:
    """One finding of the model check: the node, its operator and what is wrong."""

    node: str
    operator: str
    message: str


@dataclass
class CheckReport:
    """Problems stop the executor; warnings are probably mistakes it tolerates.

    shapes: the output shape of every node whose shape could be inferred from
    the input shapes given to check(), in execution order."""

    problems: List[Issue] = field(default_factory=list)
    warnings: List[Issue] = field(default_factory=list)
    shapes: Dict[str, Tuple[int, ...]] = field(default_factory=dict)

    @property
    def ok(self) -> bool:
        return not self.problems


def check(model: Union[Model, PathOrBytes], shapes: Optional[Mapping[str, Sequence[int]]] = None,
          format: str = "auto") -> CheckReport:
    """Checks a model without running it (a Model, a path or the model's bytes).

    With `shapes` (input name -> shape) the check also infers every node's
    output shape. A file that is not a model raises kovra.Error."""
    if isinstance(model, Model):
        source, is_path, format = model._executor.graph_bytes(), False, "plain"
    elif isinstance(model, (bytes, bytearray, memoryview)):
        source, is_path = bytes(model), False
    else:
        source, is_path = os.fspath(model), True
    given = {name: [int(d) for d in shape] for name, shape in (shapes or {}).items()}
    found = _kovra.check(source, is_path, format, given)
    return CheckReport(problems=[Issue(*issue) for issue in found["problems"]],
                       warnings=[Issue(*issue) for issue in found["warnings"]],
                       shapes={node: tuple(shape) for node, _, shape in found["shapes"]})


# How each dump type's codes are held in numpy; float dumps and .npy files stay float32.
_CODE_TYPES = {
    "int8": np.int8, "int4x2": np.int8, "uint8": np.uint8, "uint4x2": np.uint8,
    "int16": np.int16, "uint16": np.uint16, "npy-codes": np.int32,
}


def load_dump(folder: PathLike, manifest: PathLike = "") -> Dict[str, np.ndarray]:
    """The tensors of a dump folder (or a folder of .npy files) by node name, in execution order.

    Integer codes come back as integer arrays of the dumped width and
    signedness (int4 pairs as int8/uint8, integer .npy files as int32); float
    tensors as float32."""
    tensors = {}
    for name, _, dtype, values in _kovra.load_dump(os.fspath(folder), os.fspath(manifest)):
        code_type = _CODE_TYPES.get(dtype)
        tensors[name] = values if code_type is None else values.astype(code_type)
    return tensors


def _write_page(path: Optional[PathLike], page: str) -> None:
    if path is not None:
        with open(path, "w", encoding="utf-8") as out:
            out.write(page)


def compare(a: PathLike, b: PathLike, rtol: float = 1e-5, atol: float = 1e-6, *, manifest_a: PathLike = "",
            manifest_b: PathLike = "", per_channel: str = "", html: Optional[PathLike] = None) -> Dict[str, Any]:
    """Compares the tensors of folder `a` (under test) with folder `b` (reference).

    Returns the report `kovra compare --json` prints, as Python objects: the
    per-tensor records in execution order, the first divergence and counts.
    With `html`, also writes the page `kovra compare --html` writes there."""
    text, page = _kovra.compare(os.fspath(a), os.fspath(b), rtol, atol, os.fspath(manifest_a),
                                os.fspath(manifest_b), per_channel, html is not None)
    _write_page(html, page)
    return json.loads(text)


def verify(model: Union[Model, PathOrBytes], reference: PathLike, feeds: Optional[Mapping[str, Any]] = None,
           rtol: float = 1e-5, atol: float = 1e-6, *, manifest: PathLike = "", start: Names = None,
           output: Optional[str] = None, html: Optional[PathLike] = None) -> Dict[str, Any]:
    """Runs every node of `model` on the reference's values of its inputs, and the
    whole model from `feeds`, comparing each node with the reference folder.

    Missing feeds are taken from the reference. Returns the report
    `kovra verify --json` prints, as Python objects. With `html`, also writes
    the page `kovra verify --html` writes there."""
    if not isinstance(model, Model):
        model = Model(model)
    encoded = {name: npy_feed(name, value) for name, value in (feeds or {}).items()}
    text, page = _kovra.verify(model._executor, model.source, os.fspath(reference), encoded, rtol, atol,
                               os.fspath(manifest), _names(start), output or "", html is not None)
    _write_page(html, page)
    return json.loads(text)
