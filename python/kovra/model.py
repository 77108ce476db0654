"""Loading and running models."""

import io
import os
from dataclasses import dataclass, field
from typing import Any, Dict, List, Mapping, Optional, Sequence, Union

import numpy as np

from . import _kovra
from ._errors import Error
from .proto import attr_value_pb2, graph_def_pb2, tensor_pb2, types_pb2

PathOrBytes = Union[str, os.PathLike, bytes, bytearray, memoryview]
Names = Union[str, Sequence[str], None]

# Element types of the schema as numpy types, little-endian as stored.
_NUMPY_TYPES = {
    types_pb2.DT_FLOAT: "<f4",
    types_pb2.DT_DOUBLE: "<f8",
    types_pb2.DT_HALF: "<f2",
    types_pb2.DT_INT32: "<i4",
    types_pb2.DT_UINT8: "u1",
    types_pb2.DT_INT16: "<i2",
    types_pb2.DT_INT8: "i1",
    types_pb2.DT_UINT16: "<u2",
    types_pb2.DT_UINT32: "<u4",
    types_pb2.DT_INT64: "<i8",
    types_pb2.DT_UINT64: "<u8",
    types_pb2.DT_BOOL: "?",
}


def tensor_to_numpy(tensor: tensor_pb2.TensorProto) -> np.ndarray:
    """The values of a TensorProto: its content, else its typed value list."""
    shape = [int(d.size) for d in tensor.tensor_shape.dim]
    dtype = _NUMPY_TYPES.get(tensor.dtype)
    if dtype is None:
        raise Error("tensor element type %s has no numpy equivalent" % types_pb2.DataType.Name(tensor.dtype))
    if tensor.tensor_content:
        values = np.frombuffer(tensor.tensor_content, dtype=dtype)
    else:
        listed = (tensor.float_val or tensor.double_val or tensor.int_val or tensor.int64_val
                  or tensor.bool_val or tensor.uint32_val or tensor.uint64_val)
        values = np.array(listed, dtype=dtype)
    values = values.astype(np.dtype(dtype).newbyteorder("="))
    return values.reshape(shape) if values.size == int(np.prod(shape)) else values


def attr_to_python(value: attr_value_pb2.AttrValue) -> Any:
    """An attribute as the plain Python value it holds (lists as lists, tensors as arrays)."""
    kind = value.WhichOneof("value")
    if kind is None:
        return None
    if kind == "list":
        items = value.list
        for name in ("s", "i", "f", "b", "type", "shape", "tensor"):
            entries = getattr(items, name)
            if len(entries):
                return [_scalar(name, entry) for entry in entries]
        return []
    return _scalar(kind, getattr(value, kind))


def _scalar(kind: str, entry: Any) -> Any:
    if kind == "s":
        try:
            return entry.decode("utf-8")
        except UnicodeDecodeError:
            return bytes(entry)
    if kind == "shape":
        return [int(d.size) for d in entry.dim]
    if kind == "tensor":
        return tensor_to_numpy(entry)
    if kind in ("func",):
        return entry.name
    return entry


@dataclass
class Node:
    """One executed node of a model (constants appear as the weights of their readers).

    Attributes:
        name: the node's name.
        operator: its operator, e.g. "Z40Conv2D".
        inputs: its input references as the model lists them, constants included.
        attributes: its attributes as Python values (int, float, bool, str, list, numpy array).
        weights: the constants it reads, by constant name, as the executor holds them
            (numpy arrays of the constant's own element type).
    """

    name: str
    operator: str
    inputs: List[str]
    attributes: Dict[str, Any] = field(default_factory=dict)
    weights: Dict[str, np.ndarray] = field(default_factory=dict)


def _names(value: Names) -> List[str]:
    if value is None:
        return []
    if isinstance(value, str):
        return [value]
    return list(value)


def npy_feed(name: str, value: Any) -> bytes:
    """A feed as .npy bytes, which the library reads as it reads input files."""
    array = np.ascontiguousarray(np.asarray(value))
    buffer = io.BytesIO()
    try:
        np.save(buffer, array, allow_pickle=False)
    except ValueError:
        raise Error("feed '%s': numpy dtype %s holds no numbers" % (name, array.dtype)) from None
    return buffer.getvalue()


class Model:
    """A model loaded into the executor, ready to run.

    Model(source, format="auto") reads `source`, a path or the model's bytes, as
    a binary GraphDef ("plain"), protobuf text format ("text"), a protected model
    ("protected") or whichever of them it is ("auto"). A model with problems
    (see kovra.check) is refused with kovra.Error naming the first one.

    `source` keeps the path, or "<bytes>". Every failure raises kovra.Error;
    the model stays usable afterwards. Runs
    of one model from several threads take turns; different models run in
    parallel, without holding the interpreter lock.
    """

    def __init__(self, source: PathOrBytes, format: str = "auto") -> None:
        if isinstance(source, (bytes, bytearray, memoryview)):
            self.source = "<bytes>"
            self._executor = _kovra.Executor(bytes(source), False, format)
        else:
            self.source = os.fspath(source)
            self._executor = _kovra.Executor(self.source, True, format)
        self._graph: Optional[graph_def_pb2.GraphDef] = None
        self._nodes: Optional[List[Node]] = None

    @property
    def format(self) -> str:
        """The form the model was read in: "plain", "text" or "protected"."""
        return self._executor.format

    @property
    def inputs(self) -> List[str]:
        """Names of the nodes a full run is fed, in graph order."""
        return self._executor.inputs

    @property
    def outputs(self) -> List[str]:
        """Names of the nodes a full run ends in (those no node reads)."""
        return self._executor.outputs

    @property
    def graph(self) -> graph_def_pb2.GraphDef:
        """The model as a GraphDef message (a parsed copy; changing it changes nothing)."""
        if self._graph is None:
            self._graph = graph_def_pb2.GraphDef()
            self._graph.ParseFromString(self._executor.graph_bytes())
        return self._graph

    @property
    def nodes(self) -> List[Node]:
        """The executed nodes in model order, with attributes and weights."""
        if self._nodes is None:
            graph = self.graph
            ops = {node.name: node.op for node in graph.node}
            nodes = []
            for node in graph.node:
                if node.op == "Const":
                    continue
                constants = [ref for ref in node.input if ops.get(_kovra.input_lookup_name(ref)) == "Const"]
                weights = self._executor.weights(node.name)
                nodes.append(Node(
                    name=node.name, operator=node.op, inputs=list(node.input),
                    attributes={key: attr_to_python(node.attr[key]) for key in sorted(node.attr)},
                    weights={_kovra.input_lookup_name(ref): w for ref, w in zip(constants, weights)}))
            self._nodes = nodes
        return self._nodes

    def run(self, feeds: Mapping[str, Any], outputs: Names = None, start: Names = None,
            threads: Optional[int] = None, keep: bool = False) -> Dict[str, np.ndarray]:
        """Runs the model and returns output tensors by node name, as float32 arrays.

        Args:
            feeds: arrays by input name, of any numeric dtype (bool, integers,
                floats); each becomes a float32 tensor of its shape, converted
                as `kovra run` converts .npy input files (a 0-d array is one element).
            outputs: a node name or names to return; default: the graph's outputs.
                One name ends the run at that node; several run the whole graph.
            start: node name(s) to start at instead of the graph inputs; the feeds
                are then the tensors those nodes read.
            threads: threads of the tiled convolutions. The count is process-wide:
                it stays in force for later runs of every model (see set_num_threads).
                Results never depend on it.
            keep: keep every intermediate tensor readable through tensor() until
                the next run (otherwise tensors are freed as soon as they are read).
        """
        if threads is not None and threads < 1:
            raise Error("threads must be at least 1, not %d" % threads)
        encoded = {name: npy_feed(name, value) for name, value in feeds.items()}
        return self._executor.run(encoded, _names(outputs), _names(start), threads or 0, keep)

    def tensor(self, name: str) -> np.ndarray:
        """The tensor node `name` computed or was fed in the last run, as float32.

        Intermediate tensors are readable after a run with keep=True only."""
        return self._executor.tensor(name)

    def weights(self, name: str) -> List[np.ndarray]:
        """The constants node `name` reads, in input order, in their own element types."""
        return self._executor.weights(name)

    def __repr__(self) -> str:
        return "<kovra.Model %s, inputs %s, outputs %s>" % (self.format, self.inputs, self.outputs)


def set_num_threads(threads: int) -> None:
    """Sets the threads of the tiled convolutions, for the whole process."""
    _kovra.set_num_threads(threads)


def num_threads() -> int:
    """The threads of the tiled convolutions, for the whole process."""
    return _kovra.num_threads()
