import os
import subprocess

import numpy as np
import pytest

EXAMPLES = os.path.join(os.path.dirname(__file__), "..", "..", "examples")


def example(name):
    return os.path.join(EXAMPLES, name)


@pytest.fixture(scope="session")
def cli():
    """The kovra command of the same build (KOVRA_CLI), for comparisons with the package."""
    path = os.environ.get("KOVRA_CLI")
    if not path or not os.path.exists(path):
        pytest.skip("KOVRA_CLI does not name the kovra command")

    def run(*args, codes=(0,)):
        done = subprocess.run([path, *args], capture_output=True, text=True)
        assert done.returncode in codes, done.stdout + done.stderr
        return done.stdout

    return run


@pytest.fixture(scope="session")
def dumps(tmp_path_factory, cli):
    """Dumps of the example models made by `kovra run --dump`: the float model on its
    input and on a perturbed input, and the int8 model."""
    root = tmp_path_factory.mktemp("dumps")
    x = np.load(example("float_input.npy"))
    np.save(root / "moved.npy", x + np.float32(0.01) * (np.arange(x.size).reshape(x.shape) % 3))
    made = {}
    for label, model, feed in [("float", "float_model.pbtxt", example("float_input.npy")),
                               ("moved", "float_model.pbtxt", str(root / "moved.npy")),
                               ("int8", "int8_model.pbtxt", example("int8_input.npy"))]:
        cli("run", "-q", example(model), "-i", "input=" + feed, "--dump", str(root / label))
        made[label] = str(root / label)
    return made
