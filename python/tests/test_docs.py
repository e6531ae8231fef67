"""The examples in the docstrings run and print what they show."""
import doctest

import numpy as np
import pytest

import vekr

DOCUMENTED = ["resize", "warp_affine", "remap", "convolve", "sh_eval", "sh_band", "sh_project", "sh_reconstruct",
              "Scene", "get_num_threads"]


@pytest.mark.parametrize("name", DOCUMENTED)
def test_docstring_example_runs(name):
    obj = getattr(vekr, name)
    doc = obj.__doc__
    assert doc.startswith(name + "(") and "Example" in doc
    test = doctest.DocTestParser().get_doctest(doc, {"np": np, "vekr": vekr}, name, None, 0)
    assert test.examples
    runner = doctest.DocTestRunner(optionflags=doctest.NORMALIZE_WHITESPACE)
    runner.run(test)
    assert runner.failures == 0


def test_module_help_lists_the_functions():
    text = vekr.__doc__
    for name in ("resize", "warp_affine", "remap", "convolve", "sh_eval", "Scene", "set_num_threads"):
        assert name in text
