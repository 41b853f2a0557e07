"""Bad input gives a ValueError or TypeError that names the argument, never a crash."""

import numpy as np
import pandas as pd
import pytest

import vorel

X = np.arange(12.0).reshape(4, 3)
FRAME = pd.DataFrame({"a": [1.0, 2.0, 3.0], "b": [4.0, 5.0, 7.0], "w": [1.0, 2.0, 1.0],
                      "name": ["p", "q", "r"]})


@pytest.mark.parametrize("data, args, error, message", [
    # shapes and types of data
    (np.arange(4.0), {}, ValueError, r"data: needs a 2-D array.*reshape"),
    (np.zeros((0, 3)), {}, ValueError, r"data: has no rows"),
    (np.zeros((3, 0)), {}, ValueError, r"data: has no columns"),
    (None, {}, TypeError, r"data: needs a 2-D array"),
    (X.astype(complex), {}, TypeError, r"data: needs real numbers.*complex"),
    (np.array([["a", "b"]]), {}, TypeError, r"data: needs real numbers"),
    ([[1.0, 2.0], [3.0]], {}, ValueError, r"data: is not a 2-D array"),
    (FRAME, {}, TypeError, r"data: column 'name' is not numeric"),
    (pd.DataFrame([[1.0, 2.0, 3.0]], columns=["a", "a", "b"]), {}, ValueError,
     r"data: more than one column of data is named 'a'"),
    (np.array([[np.finfo(float).min, 1.0]]), dict(deletion="pairwise"), ValueError,
     r"data: the value -1.79.* stands for missing cells"),
    # weights
    (X, dict(weights=[1, 2, 3]), ValueError, r"weights: has 3 values for 4 rows"),
    (X, dict(weights=[1, -2, 3, 4]), ValueError, r"weights: needs values of 0 or more, row 1 holds -2"),
    (X, dict(weights=[1, np.nan, 3, 4]), ValueError, r"weights: needs finite values, row 1 holds nan"),
    (X, dict(weights=np.ones((4, 1))), ValueError, r"weights: needs one dimension"),
    (X, dict(weights=["a", "b", "c", "d"]), TypeError, r"weights: needs one real"),
    (X, dict(reg_weights=[1, 1, -1, 1]), ValueError, r"reg_weights: needs values"),
    # column names
    (X, dict(weights="w"), TypeError, r"weights: names a column.*DataFrame"),
    (FRAME[["a", "b"]], dict(weights="v"), ValueError, r"weights: data has no column 'v'"),
    # groups
    (X, dict(groups=[1, 2]), ValueError, r"groups: has 2 labels for 4 rows"),
    (X, dict(groups=np.zeros((4, 2))), ValueError, r"groups: needs one dimension"),
    # options
    (X, dict(deletion="casewise"), ValueError, r"deletion: needs 'listwise' or 'pairwise'"),
    (X, dict(missing="NA"), TypeError, r"missing: needs a number"),
    (X, dict(missing=np.inf), ValueError, r"missing: needs NaN or a finite code"),
    (X, dict(threads=0), ValueError, r"threads: needs 1 or more"),
    (X, dict(threads=1.5), TypeError, r"threads: needs a whole number"),
    (X, dict(ddof=-1), ValueError, r"ddof: needs 0 or more"),
    (X, dict(ddof=0.5), TypeError, r"ddof: needs a whole number"),
])
def test_bad_input_is_named(data, args, error, message):
    with pytest.raises(error, match=message):
        vorel.describe(data, **args)


def test_accumulators_refuse_rows_or_partners_that_do_not_fit():
    acc = vorel.Listwise().update(X)
    with pytest.raises(ValueError, match="data: has 2 columns, the rows before had 3"):
        acc.update(X[:, :2])
    with pytest.raises(ValueError, match="reg_weights: the first rows came without"):
        acc.update(X, reg_weights=np.ones(4))
    with pytest.raises(ValueError, match="chunk: lacks the columns"):
        vorel.Listwise().update(FRAME[["a", "b"]]).update(FRAME[["a", "w"]])
    with pytest.raises(TypeError, match="other: needs a Listwise, got Pairwise"):
        acc.merge(vorel.Pairwise().update(X))
    with pytest.raises(ValueError, match="other: has 2 columns"):
        acc.merge(vorel.Listwise().update(X[:, :2]))
    with pytest.raises(ValueError, match="other: has another missing code"):
        acc.merge(vorel.Listwise(missing=-1).update(X))
    with pytest.raises(TypeError, match="groups: only ByGroup"):
        acc.update(X, groups=[0, 0, 1, 1])
    with pytest.raises(TypeError, match="groups: ByGroup needs"):
        vorel.ByGroup().update(X)
    with pytest.raises(ValueError, match="deletion"):
        vorel.ByGroup(deletion="both")
    # A refused update changes nothing.
    assert acc.result() == vorel.describe(X)

