"""The Python package against values computed here with numpy and against the kovra command."""

import json
import os
import subprocess
import sys
import threading

import numpy as np
import pytest

import kovra
from conftest import example


def conv_reference(x, w, b, relu):
    """Stride-1 VALID convolution, NHWC with weights [kh, kw, in, out]."""
    windows = np.lib.stride_tricks.sliding_window_view(x.astype(np.float64), w.shape[:2], axis=(1, 2))
    out = np.einsum("nijcab,abco->nijo", windows, w.astype(np.float64)) + b
    return np.maximum(out, 0) if relu else out


def maxpool_reference(x):
    n, h, w, c = x.shape
    return x[:, :h // 2 * 2, :w // 2 * 2].reshape(n, h // 2, 2, w // 2, 2, c).max(axis=(2, 4))


# pad_value and dilations in other encodings than Z40Conv2D reads (a float, an int list).
CONV_ATTRS = dict(strides=[1, 1, 1, 1], padding="VALID", pads=[0, 0, 0, 0], dilations=[1.0, 1.0, 1.0, 1.0],
                  pad_value=0)


def built_model(weights, bias, op="Z40Conv2D"):
    b = kovra.GraphBuilder()
    x = b.placeholder("x")
    b.node("conv", op, [x, b.constant("w", weights), b.constant("bias", bias)], ActionType="Relu",
           **CONV_ATTRS)
    return b


def model_bytes(form):
    """The float example in each form a model comes in."""
    text = open(example("float_model.pbtxt"), "rb").read()
    plain = kovra.Model(text).graph.SerializeToString()
    return {"text": text, "plain": plain, "protected": kovra.builder._kovra.protect(plain)}[form]


# ---- running ----------------------------------------------------------------------------

@pytest.mark.parametrize("form", ["text", "plain", "protected"])
@pytest.mark.parametrize("as_path", [False, True])
def test_examples_in_every_form(form, as_path, tmp_path):
    data = model_bytes(form)
    source = data
    if as_path:
        source = tmp_path / "model"
        source.write_bytes(data)
    model = kovra.Model(source)
    assert model.format == form
    assert (model.inputs, model.outputs) == (["input"], ["logits/conv"])
    out = model.run({"input": np.load(example("float_input.npy"))})
    np.testing.assert_allclose(out["logits/conv"], np.load(example("float_expected.npy")), rtol=1e-5, atol=1e-5)
    assert out["logits/conv"].dtype == np.float32


def test_int8_example_is_exact():
    model = kovra.Model(example("int8_model.pbtxt"), format="text")
    out = model.run({"input": np.load(example("int8_input.npy"))})
    np.testing.assert_array_equal(out["output/dequantize"], np.load(example("int8_expected.npy")))
    quantize = model.nodes[1].attributes
    assert (quantize["QSCALE"], quantize["maxValue"], quantize["offset"]) == ([100.0, 90.0, 110.0], 127, 0)


def test_intermediate_tensors_and_partial_runs():
    model = kovra.Model(example("float_model.pbtxt"))
    x = np.load(example("float_input.npy"))
    nodes = {node.name: node for node in model.nodes}
    assert [n.operator for n in model.nodes] == ["ZxxNOp", "Z40Conv2D", "Z40MaxPool", "Z40Conv2D"]
    conv1 = nodes["conv1"]
    assert conv1.attributes["padding"] == "VALID" and conv1.attributes["strides"] == [1, 1, 1, 1]
    assert conv1.attributes["pad_value"] == 0.0 and list(conv1.weights) == ["conv1/weights", "conv1/bias"]
    want1 = conv_reference(x, conv1.weights["conv1/weights"], conv1.weights["conv1/bias"], relu=True)
    want2 = maxpool_reference(want1)

    out = model.run({"input": x}, keep=True)
    np.testing.assert_allclose(model.tensor("conv1"), want1, rtol=1e-5, atol=1e-5)
    np.testing.assert_allclose(model.tensor("pool1"), want2, rtol=1e-5, atol=1e-5)
    # Several outputs, one end node, and a run that starts inside the graph.
    both = model.run({"input": x}, outputs=["conv1", "pool1"])
    np.testing.assert_array_equal(both["pool1"], model.tensor("pool1"))
    assert list(model.run({"input": x}, outputs="conv1")) == ["conv1"]
    resumed = model.run({"conv1": both["conv1"]}, start="pool1")
    np.testing.assert_array_equal(resumed["logits/conv"], out["logits/conv"])


def test_built_model_against_numpy():
    rng = np.random.default_rng(7)
    w = rng.uniform(-1, 1, (3, 3, 2, 5)).astype(np.float32)
    bias = rng.uniform(-1, 1, 5).astype(np.float32)
    x = rng.uniform(-1, 1, (1, 6, 7, 2)).astype(np.float32)
    builder = built_model(w, bias)
    conv = builder.graph.node[-1]
    assert conv.attr["pad_value"].WhichOneof("value") == "f" and conv.attr["dilations"].list.i == [1, 1, 1, 1]
    model = builder.model()
    np.testing.assert_allclose(model.run({"x": x})["conv"], conv_reference(x, w, bias, True), rtol=1e-5, atol=1e-5)
    np.testing.assert_array_equal(model.weights("conv")[0], w)


@pytest.mark.parametrize("form", ["plain", "text", "protected"])
def test_builder_saves_every_form(form, tmp_path):
    builder = built_model(np.ones((1, 1, 1, 1), np.float32), np.zeros(1, np.float32))
    path = tmp_path / "m"
    builder.save(path, format=form)
    assert kovra.Model(path).format == form
    assert kovra.Model(path).run({"x": np.full((1, 2, 2, 1), 3.0)})["conv"].tolist() == [[[[3.0], [3.0]], [[3.0], [3.0]]]]


def relu_model():
    b = kovra.GraphBuilder()
    b.node("y", "Z40Relu", [b.placeholder("x")])
    return b.model()


# Any numeric dtype, byte order, layout and rank is read as float32; negative
# values must stay negative (relu turns them into 0, a wrapped code would not).
FEEDS = [
    np.array([True, False]),
    np.array([-128, -1, 0, 127], np.int8),
    np.array([0, 200, 255], np.uint8),
    np.array([-32768, 5, 32767], np.int16),
    np.array([65535, 1], np.uint16),
    np.array([-2**31, 2**31 - 1], np.int32),
    np.array([2**32 - 1], np.uint32),
    np.array([-2**40, 3], np.int64),
    np.array([2**63], np.uint64),
    np.array([-1.5, 2.25], np.float16),
    np.array([-1.5, 1e30], np.float64),
    np.array([[1.5, -2.0]], ">f4"),
    np.array([[-7, 300]], ">i2"),
    np.asfortranarray(np.arange(-6, 6, dtype=np.float32).reshape(3, 4)),
    np.arange(24, dtype=np.float32).reshape(4, 6)[:, ::2],
    np.arange(-60, 60, dtype=np.float32).reshape(1, 2, 3, 4, 5),
    [1, -2, 3],
]


@pytest.mark.parametrize("feed", FEEDS, ids=lambda f: str(np.asarray(f).dtype) + str(np.shape(f)))
def test_feed_dtypes_and_shapes(feed):
    out = relu_model().run({"x": feed})["y"]
    want = np.maximum(np.asarray(feed).astype(np.float32), 0)
    assert out.dtype == np.float32 and out.shape == want.shape
    np.testing.assert_array_equal(out, want)


def test_scalar_feed_is_one_element():
    assert relu_model().run({"x": np.float64(-2.5)})["y"].shape == (1,)


# ---- errors -------------------------------------------------------------------------------

def bad_calls():
    good = kovra.Model(example("float_model.pbtxt"))
    x = np.load(example("float_input.npy"))
    builder = kovra.GraphBuilder()
    builder.placeholder("x")
    frob = kovra.GraphBuilder()
    frob.node("f", "Z40Frob", [frob.placeholder("x")])
    return good, [
        # (call, message, node, operator)
        (lambda: kovra.Model("/nonexistent/m.pb"), "cannot read model file '/nonexistent/m.pb'", "", ""),
        (lambda: kovra.Model(b"\x01\x02 not a model"),
         "cannot read '<bytes>' as a model: neither protected, binary nor text GraphDef", "", ""),
        (lambda: kovra.Model(example("float_model.pbtxt"), format="xml"),
         "unknown model format 'xml' (auto, plain, text or protected)", "", ""),
        (lambda: frob.model(), "the model uses operators this build does not have: Z40Frob", "f", "Z40Frob"),
        (lambda: good.run({}), "Do not find the input data :input", "input", "ZxxNOp"),
        (lambda: good.run({"input": x[..., :2]}),
         'Check failed: weight_in_channels * groups == input_channels==>"FloatZ40Conv2D: weight in-channels 3 '
         'x groups 1 != input channels 2"', "conv1", "Z40Conv2D"),
        (lambda: good.run({"input": x[0]}),
         'Check failed: input_tensor->shape().size() == 4==>"Wrong input shape in z40 conv2d!!!"', "conv1",
         "Z40Conv2D"),
        (lambda: good.run({"input": x, "other": x}), "unknown input 'other'; the model's inputs are: input", "", ""),
        (lambda: good.run({"input": x.astype(np.complex64)}), "feed 'input': unsupported dtype '<c8'", "", ""),
        (lambda: good.run({"input": np.array([], np.float32)}), "feed 'input': the array has no elements", "", ""),
        (lambda: good.run({"input": np.array([None])}), "feed 'input': numpy dtype object holds no numbers", "", ""),
        (lambda: good.run({"input": x}, threads=0), "threads must be at least 1, not 0", "", ""),
        (lambda: good.run({"input": x}, outputs="nope"), "output: the model has no node 'nope'", "", ""),
        (lambda: good.run({"input": x}, start="nope"), "start: the model has no node 'nope'", "", ""),
        (lambda: good.tensor("conv1"),
         "Please set inplace mode as FALSE to get the middle node:conv1 output tensor.", "", ""),
        (lambda: builder.node("h", "Z40HardSwish", ["x"], add_scalar_value="3"),
         'the attribute "add_scalar_value" holds a string but Z40HardSwish reads a float; it reads as 0 or empty',
         "h", "Z40HardSwish"),
        (lambda: builder.placeholder("x"), "node 'x' is defined twice", "x", "ZxxNOp"),
        (lambda: builder.constant("c", np.zeros(2, np.float16)),
         "numpy dtype float16 is not an element type of the executor (float32, int32, uint8, int16, int8, uint32)",
         "", ""),
        (lambda: kovra.load_dump("/nonexistent"), "'/nonexistent' is not a folder", "", ""),
    ]


def test_every_error_raises_and_the_model_stays_usable():
    good, calls = bad_calls()
    x = np.load(example("float_input.npy"))
    want = np.load(example("float_expected.npy"))
    good.run({"input": x})
    for call, message, node, operator in calls:
        with pytest.raises(kovra.Error) as raised:
            call()
        assert (raised.value.message, raised.value.node, raised.value.operator) == (message, node, operator)
        np.testing.assert_allclose(good.run({"input": x})["logits/conv"], want, rtol=1e-5, atol=1e-5)


def test_error_text_names_the_node():
    error = kovra.Error("Wrong input shape", "conv1", "Z40Conv2D")
    assert str(error) == "Wrong input shape (node 'conv1', operator Z40Conv2D)"
    import pickle
    assert pickle.loads(pickle.dumps(error)).node == "conv1"


# ---- threads ------------------------------------------------------------------------------

def test_threads_run_models_side_by_side():
    float_model = kovra.Model(example("float_model.pbtxt"))
    int8_model = kovra.Model(example("int8_model.pbtxt"))
    jobs = [(float_model, "float"), (int8_model, "int8"), (float_model, "float")]
    want = {label: np.load(example(label + "_expected.npy")) for _, label in jobs}
    failures = []

    def work(model, label):
        x = np.load(example(label + "_input.npy"))
        for _ in range(10):
            got = list(model.run({"input": x}, threads=2).values())[0]
            if not np.allclose(got, want[label], rtol=1e-5, atol=1e-5):
                failures.append(label)

    threads = [threading.Thread(target=work, args=job) for job in jobs]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert failures == [] and kovra.num_threads() == 2


# ---- checking and debugging -----------------------------------------------------------------

def test_check():
    report = kovra.check(example("int8_model.pbtxt"), {"input": [1, 12, 12, 3]})
    assert report.ok and report.warnings == []
    assert report.shapes == {"quantize": (1, 12, 12, 3), "conv1": (1, 10, 10, 8), "conv2": (1, 4, 4, 4),
                             "output/dequantize": (1, 4, 4, 4)}
    graph = kovra.Model(example("float_model.pbtxt")).graph
    nodes = {node.name: node for node in graph.node}
    nodes["conv1"].op = "Z40Frob"
    nodes["logits/conv"].attr["pad_value"].i = 0
    report = kovra.check(graph.SerializeToString())
    assert report.problems == [kovra.Issue("conv1", "Z40Frob", "the model uses operators this build does not have: Z40Frob")]
    assert report.warnings == [kovra.Issue(
        "logits/conv", "Z40Conv2D",
        'the attribute "pad_value" holds an integer but Z40Conv2D reads a float; it reads as 0 or empty')]
    assert kovra.check(kovra.Model(example("float_model.pbtxt"))).ok


def test_load_dump_keeps_signedness(dumps):
    model = kovra.Model(example("int8_model.pbtxt"))
    model.run({"input": np.load(example("int8_input.npy"))}, keep=True)
    tensors = kovra.load_dump(dumps["int8"])
    assert list(tensors)[:3] == ["quantize", "conv1", "conv2"]
    codes = tensors["quantize"]
    assert codes.dtype == np.int8 and (codes < 0).any()
    for name in ("quantize", "conv1", "conv2"):
        np.testing.assert_array_equal(tensors[name], model.tensor(name))
    assert kovra.load_dump(dumps["float"])["conv1"].dtype == np.float32


def test_compare_and_verify_equal_the_command(dumps, cli, tmp_path):
    for a, b, tolerances in [(dumps["moved"], dumps["float"], []), (dumps["float"], dumps["float"], []),
                             (dumps["moved"], dumps["float"], ["--rtol", "0.1", "--atol", "0.5"])]:
        got = kovra.compare(a, b, *(float(v) for v in tolerances[1::2]))
        assert got == json.loads(cli("compare", a, b, "--json", "-", *tolerances, codes=(0, 1)))
    assert kovra.compare(dumps["moved"], dumps["float"])["tensors"][0]["status"] == "mismatch"
    kovra.compare(dumps["moved"], dumps["float"], html=tmp_path / "compare.html")
    cli("compare", dumps["moved"], dumps["float"], "--html", str(tmp_path / "cli.html"), codes=(1,))
    assert (tmp_path / "compare.html").read_text() == (tmp_path / "cli.html").read_text()

    inputs = {"original": example("float_input.npy"),
              "moved": os.path.join(os.path.dirname(dumps["moved"]), "moved.npy")}
    model = example("float_model.pbtxt")
    for path in inputs.values():
        want = json.loads(cli("verify", model, dumps["float"], "--json", "-", "-i", "input=" + path, codes=(0, 1)))
        assert kovra.verify(model, dumps["float"], {"input": np.load(path)}) == want
    moved = {"input": np.load(inputs["moved"])}
    assert kovra.verify(model, dumps["float"], moved, html=tmp_path / "verify.html")["first_accumulated"] == "conv1"
    cli("verify", model, dumps["float"], "-i", "input=" + inputs["moved"], "--html", str(tmp_path / "cli.html"),
        codes=(1,))
    assert (tmp_path / "verify.html").read_text() == (tmp_path / "cli.html").read_text()


# ---- the schema's classes next to other packages' ---------------------------------------------

CLASH = """
from google.protobuf import descriptor_pb2, descriptor_pool
def clash():
    pool = descriptor_pool.Default()
    for name in ("types.proto", "tensor_shape.proto", "tensor.proto", "attr_value.proto"):
        f = descriptor_pb2.FileDescriptorProto(name=name, package="other." + name[:-6])
        f.message_type.add(name="AttrValue")
        pool.AddSerializedFile(f.SerializeToString())
"""

RUN = """
import numpy as np, kovra
b = kovra.GraphBuilder()
b.node("y", "Z40Relu", [b.placeholder("x")])
print(b.model().run({"x": np.array([-1, 2])})["y"].tolist())
"""


@pytest.mark.parametrize("order", ["clash first", "kovra first"])
def test_schema_loads_beside_same_named_files(order):
    script = CLASH + ("clash()\n" + RUN if order == "clash first" else RUN + "clash()\n")
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    assert done.stdout.strip().splitlines()[-1] == "[0.0, 2.0]"
