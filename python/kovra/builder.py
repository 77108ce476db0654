"""Building models from Python."""

import os
from typing import Any, Iterable, Mapping, Optional, Sequence, Union

import numpy as np
from google.protobuf import text_format

from . import _kovra
from ._errors import Error
from .model import Model
from .proto import attr_value_pb2, graph_def_pb2, node_def_pb2, tensor_pb2, types_pb2

# numpy element types the executor holds, and their schema codes.
_SCHEMA_TYPES = {
    np.dtype(np.float32): types_pb2.DT_FLOAT,
    np.dtype(np.int32): types_pb2.DT_INT32,
    np.dtype(np.uint8): types_pb2.DT_UINT8,
    np.dtype(np.int16): types_pb2.DT_INT16,
    np.dtype(np.int8): types_pb2.DT_INT8,
    np.dtype(np.uint32): types_pb2.DT_UINT32,
}


def tensor_proto(value: Any) -> tensor_pb2.TensorProto:
    """A TensorProto holding `value` in tensor_content, little-endian, C order.

    float64 arrays and Python floats become float32, Python ints int32; other
    element types must be ones the executor holds."""
    array = np.asarray(value)
    if array.dtype == np.float64:
        array = array.astype(np.float32)
    elif array.dtype == np.int64:
        array = array.astype(np.int32)
    code = _SCHEMA_TYPES.get(array.dtype.newbyteorder("="))
    if code is None:
        raise Error("numpy dtype %s is not an element type of the executor "
                    "(float32, int32, uint8, int16, int8, uint32)" % array.dtype)
    tensor = tensor_pb2.TensorProto(dtype=code)
    for size in array.shape:
        tensor.tensor_shape.dim.add(size=size)
    tensor.tensor_content = np.ascontiguousarray(array, dtype=array.dtype.newbyteorder("<")).tobytes()
    return tensor


# Explicit encodings, for attributes no operator reads and for AttrValues made by hand.
def as_int(value: int) -> attr_value_pb2.AttrValue:
    """An integer attribute (i)."""
    return attr_value_pb2.AttrValue(i=int(value))


def as_float(value: float) -> attr_value_pb2.AttrValue:
    """A float attribute (f)."""
    return attr_value_pb2.AttrValue(f=float(value))


def as_ints(values: Iterable[int]) -> attr_value_pb2.AttrValue:
    """An integer list attribute (list.i)."""
    attr = attr_value_pb2.AttrValue()
    attr.list.i.extend(int(v) for v in values)
    return attr


def as_floats(values: Iterable[float]) -> attr_value_pb2.AttrValue:
    """A float list attribute (list.f)."""
    attr = attr_value_pb2.AttrValue()
    attr.list.f.extend(float(v) for v in values)
    return attr


def as_tensor(value: Any) -> attr_value_pb2.AttrValue:
    """A tensor attribute, e.g. per-channel scales (see tensor_proto for element types)."""
    return attr_value_pb2.AttrValue(tensor=tensor_proto(value))


def attr_value(value: Any) -> attr_value_pb2.AttrValue:
    """`value` as an AttrValue, encoded after its Python type.

    bool -> b; int -> i; float -> f; str or bytes -> s; numpy array -> tensor;
    list or tuple of ints -> list.i, of other numbers -> list.f, of strings ->
    list.s; an AttrValue is kept. GraphBuilder.node then moves each value into
    the encoding its operator reads, where it converts exactly."""
    if isinstance(value, attr_value_pb2.AttrValue):
        return value
    if isinstance(value, (bool, np.bool_)):
        return attr_value_pb2.AttrValue(b=bool(value))
    if isinstance(value, (int, np.integer)):
        return as_int(value)
    if isinstance(value, (float, np.floating)):
        return as_float(value)
    if isinstance(value, str):
        return attr_value_pb2.AttrValue(s=value.encode("utf-8"))
    if isinstance(value, bytes):
        return attr_value_pb2.AttrValue(s=value)
    if isinstance(value, np.ndarray):
        return as_tensor(value)
    if isinstance(value, (list, tuple)):
        if all(isinstance(v, (int, np.integer)) and not isinstance(v, bool) for v in value):
            return as_ints(value)
        if all(isinstance(v, (int, float, np.integer, np.floating)) for v in value):
            return as_floats(value)
        if all(isinstance(v, (str, bytes)) for v in value):
            attr = attr_value_pb2.AttrValue()
            attr.list.s.extend(v.encode("utf-8") if isinstance(v, str) else v for v in value)
            return attr
    raise Error("cannot encode %r as an attribute" % (value,))


class GraphBuilder:
    """Builds a model node by node.

        b = kovra.GraphBuilder()
        x = b.placeholder("input")
        w = b.constant("conv/weights", np.ones((3, 3, 1, 4), np.float32))
        b.node("conv", "Z40Conv2D", [x, w], strides=[1, 1, 1, 1], padding="VALID")
        model = b.model()

    Each method returns the new node's name, for use as another node's input.
    """

    def __init__(self) -> None:
        self.graph = graph_def_pb2.GraphDef()
        self._names = set()

    def _add(self, name: str, op: str) -> Any:
        if name in self._names:
            raise Error("node '%s' is defined twice" % name, name, op)
        self._names.add(name)
        return self.graph.node.add(name=name, op=op)

    def placeholder(self, name: str, op: str = "ZxxNOp") -> str:
        """A node the caller feeds; ZxxNOp passes its tensor through."""
        self._add(name, op)
        return name

    def constant(self, name: str, value: Any) -> str:
        """A Const node holding `value` (see tensor_proto for element types)."""
        node = self._add(name, "Const")
        node.attr["value"].CopyFrom(as_tensor(value))
        return name

    def node(self, name: str, op: str, inputs: Sequence[str] = (), attrs: Optional[Mapping[str, Any]] = None,
             **more_attrs: Any) -> str:
        """A node of operator `op` reading `inputs` (nodes and constants).

        Attributes come from `attrs` (for keys that are not Python names) and
        keyword arguments, encoded by attr_value() and then moved into the
        encoding the operator reads (an int 6 where a float is read becomes
        6.0, integral floats where integers are read become ints). A value that
        cannot be read as the operator reads it (a string for a float) raises
        kovra.Error."""
        node = node_def_pb2.NodeDef(name=name, op=op, input=list(inputs))
        for key, value in dict(attrs or {}, **more_attrs).items():
            node.attr[key].CopyFrom(attr_value(value))
        # Re-encoded as the operator reads: an operator reading a float takes an int as 0.
        fitted, left = _kovra.fit_attribute_encodings(node.SerializeToString())
        if left:
            raise Error(left[0], name, op)
        self._add(name, op).ParseFromString(fitted)
        return name

    def to_bytes(self, format: str = "plain") -> bytes:
        """The model as a binary GraphDef ("plain"), text ("text") or protected ("protected")."""
        if format == "text":
            return text_format.MessageToString(self.graph).encode("utf-8")
        plain = self.graph.SerializeToString(deterministic=True)
        if format == "plain":
            return plain
        if format == "protected":
            return _kovra.protect(plain)
        raise Error("unknown model format '%s' (plain, text or protected)" % format)

    def save(self, path: Union[str, os.PathLike], format: Optional[str] = None) -> None:
        """Writes the model; the format defaults to text for .pbtxt files, plain otherwise."""
        path = os.fspath(path)
        if format is None:
            format = "text" if path.endswith(".pbtxt") else "plain"
        data = self.to_bytes(format)
        with open(path, "wb") as out:
            out.write(data)

    def model(self) -> Model:
        """The model built so far, loaded into the executor."""
        return Model(self.to_bytes("plain"), format="plain")


__all__ = ["GraphBuilder", "tensor_proto", "attr_value", "as_int", "as_float", "as_ints", "as_floats",
           "as_tensor"]
