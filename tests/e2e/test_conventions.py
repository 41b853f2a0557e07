"""The divisor conventions (--ddof, --weight-kind), --exclude and --sections
against NumPy on data generated here: weighted means, weight sums and
covariances, listwise and of each pair."""
import unittest

import numpy as np
import pandas as pd

from common import CsvCase, TempCsv, matrix, run, run_json

COLUMNS = ["a", "b", "c"]
SEED = 20261124


def make_frame(rows=400, missing=0.1):
    """Three columns of different scales with some empty cells, an integer
    frequency weight, a positive analytic weight and a group code."""
    rng = np.random.default_rng(SEED)
    frame = pd.DataFrame({
        "a": rng.normal(10.0, 2.0, rows),
        "b": rng.normal(-3.0, 50.0, rows),
        "c": rng.exponential(4.0, rows) + 1e6,
        "f": rng.integers(1, 6, rows),
        "r": rng.uniform(0.05, 3.0, rows),
        "g": rng.integers(1, 5, rows),
    })
    for name in COLUMNS:
        frame.loc[rng.random(rows) < missing, name] = np.nan
    return frame


def numpy_cov(values, weights, kind, ddof):
    key = "fweights" if kind == "frequency" else "aweights"
    return np.cov(values, rowvar=False, ddof=ddof, **{key: weights})


def weight_column(kind):
    return "f" if kind == "frequency" else "r"


class Conventions(CsvCase):
    frame = make_frame()
    text = frame.to_csv(index=False, float_format="%.17g")

    def assertClose(self, actual, expected, msg=""):
        np.testing.assert_allclose(np.asarray(actual, dtype=float), np.asarray(expected, dtype=float),
                                   rtol=1e-10, atol=0, err_msg=msg)

    def cases(self):
        for kind in ("frequency", "analytic"):
            for ddof in (0, 1, 2):
                yield kind, ddof

    def test_listwise_against_numpy_cov(self):
        complete = self.frame.dropna(subset=COLUMNS)
        for kind, ddof in self.cases():
            with self.subTest(kind=kind, ddof=ddof):
                w = weight_column(kind)
                report = run_json(self.path, "-c", ",".join(COLUMNS), "-w", w, "--weight-kind", kind,
                                  "--ddof", str(ddof))
                self.assertEqual((report["weight_kind"], report["ddof"]), (kind, ddof))
                # Whole frequency weights add up exactly, in any order.
                exact = self.assertEqual if kind == "frequency" else self.assertClose
                exact(report["weight_sum"], complete[w].sum())
                means = np.average(complete[COLUMNS], axis=0, weights=complete[w])
                self.assertClose([c["mean"] for c in report["columns"]], means)
                cov = numpy_cov(complete[COLUMNS].to_numpy(), complete[w].to_numpy(), kind, ddof)
                self.assertClose(matrix(report, "covariance"), cov)
                self.assertClose([c["sd"] for c in report["columns"]], np.sqrt(np.diag(cov)))
                sd = np.sqrt(np.diag(cov))
                self.assertClose(matrix(report, "correlation"), cov / np.outer(sd, sd))

    def test_pairwise_against_numpy_cov_of_each_pair(self):
        for kind, ddof in self.cases():
            w = weight_column(kind)
            report = run_json(self.path, "-p", "-c", ",".join(COLUMNS), "-w", w, "--weight-kind", kind,
                              "--ddof", str(ddof))
            cov, weights = matrix(report, "covariance"), matrix(report, "pair_weights")
            exact = self.assertEqual if kind == "frequency" else self.assertClose
            for i, x in enumerate(COLUMNS):
                for j, y in enumerate(COLUMNS):
                    with self.subTest(kind=kind, ddof=ddof, pair=(x, y)):
                        both = self.frame.dropna(subset=[x, y])
                        exact(weights[i, j], both[w].sum())
                        expected = numpy_cov(both[[x, y]].to_numpy(), both[w].to_numpy(), kind, ddof)
                        self.assertClose(cov[i, j], expected[0, 1 if i != j else 0])

    def test_groups_against_numpy_cov_of_each_group(self):
        complete = self.frame.dropna(subset=COLUMNS)
        for kind, ddof in self.cases():
            with self.subTest(kind=kind, ddof=ddof):
                w = weight_column(kind)
                report = run_json(self.path, "-c", ",".join(COLUMNS), "-w", w, "-g", "g",
                                  "--group-covariance", "--weight-kind", kind, "--ddof", str(ddof))
                within = np.zeros((len(COLUMNS), len(COLUMNS)))
                divisors = 0.0
                for group in report["groups"]:
                    rows = complete[complete["g"] == group["code"]]
                    values, weights = rows[COLUMNS].to_numpy(), rows[w].to_numpy()
                    cov = numpy_cov(values, weights, kind, ddof)
                    self.assertClose(matrix(group, "covariance"), cov, f"group {group['code']}")
                    v1 = weights.sum()
                    divisor = v1 - ddof if kind == "frequency" else v1 - ddof * (weights ** 2).sum() / v1
                    within += cov * divisor
                    divisors += divisor
                self.assertClose(report["pooled_divisor"], divisors)
                self.assertClose(matrix(report, "pooled_covariance"), within / divisors)

    def test_divisor_not_positive_is_undefined_with_a_note(self):
        # Two rows of analytic weights 1 and 3: W = 4, V = 10, so ddof 1
        # divides by 1.5 and ddof 2 by -1: no figure.
        with TempCsv("x,y,w\n1,2,1\n4,7,3\n") as path:
            one = run_json(path, "-c", "x,y", "-w", "w", "--weight-kind", "analytic")
            two = run_json(path, "-c", "x,y", "-w", "w", "--weight-kind", "analytic", "--ddof", "2")
        expected = np.cov(np.array([[1.0, 2.0], [4.0, 7.0]]), rowvar=False, aweights=[1.0, 3.0])
        self.assertClose(matrix(one, "covariance"), expected)
        self.assertTrue(np.isnan(matrix(two, "covariance")).all())
        self.assertTrue(any("divisor W - 2 V / W is not positive" in note for note in two["notes"]))

    def test_table_head_names_a_divisor_other_than_the_default(self):
        default = run(self.path, "-c", "a,b", "-w", "f")
        analytic = run(self.path, "-c", "a,b", "-w", "r", "--weight-kind", "analytic", "--ddof", "0")
        self.assertEqual((default.returncode, analytic.returncode), (0, 0), default.stderr + analytic.stderr)
        self.assertNotIn("divisor", default.stdout.split("\n\n")[0])
        self.assertIn("divisor     W (analytic weights, ddof 0)", analytic.stdout)


class ColumnsAndSections(CsvCase):
    text = make_frame(rows=60).to_csv(index=False)

    def test_exclude_leaves_columns_out_of_either_choice(self):
        chosen = run_json(self.path, "--exclude", "f,r,g")
        self.assertEqual([c["name"] for c in chosen["columns"]], COLUMNS)
        self.assertEqual([s["name"] for s in chosen["skipped_columns"]], ["f", "r", "g"])
        named = run_json(self.path, "-c", "a,b,c", "--exclude", "b")
        self.assertEqual([c["name"] for c in named["columns"]], ["a", "c"])
        full = run_json(self.path, "-c", "a,c")
        self.assertEqual(named["covariance"], full["covariance"])

    def test_sections_choose_what_is_printed(self):
        keys = {"columns": ["columns"], "covariance": ["covariance"], "correlation": ["correlation"],
                "pairs": ["pair_rows", "pair_weights"], "groups": ["groups"],
                "pooled": ["pooled_divisor", "pooled_covariance"]}
        titles = {"columns": "Columns", "covariance": "Covariance", "correlation": "Correlation",
                  "pairs": "Rows of each pair", "groups": "Means by group of g",
                  "pooled": "Pooled within-group covariance"}
        every = [key for section in keys.values() for key in section]
        args = [self.path, "-p", "-c", "a,b", "-g", "g"]
        full = run_json(*args)
        for chosen in (["columns"], ["pairs", "pooled"], ["covariance", "groups"]):
            with self.subTest(sections=chosen):
                report = run_json(*args, "--sections", ",".join(chosen))
                shown = [key for section in chosen for key in keys[section]]
                for key in every:
                    self.assertEqual(key in report, key in shown, key)
                    if key in shown:
                        self.assertEqual(report[key], full[key], key)
                table = run(*args, "--sections", ",".join(chosen))
                self.assertEqual(table.returncode, 0, table.stderr)
                for section, title in titles.items():
                    self.assertEqual("\n" + title in table.stdout, section in chosen, title)

    def test_bad_conventions_are_usage_errors(self):
        cases = [
            (["--weight-kind", "analytic"], "needs the weight column"),
            (["--weight-kind", "analytic", "-w", "r", "-r", "f"], "cannot be combined with --reg-weight"),
            (["--weight-kind", "reliability"], "weight-kind"),
            (["--ddof", "-1"], "ddof"),
            (["--exclude", "nosuch"], "\"nosuch\", which the header lacks"),
            (["-c", "a", "--exclude", "a"], "leaves none of the --columns"),
            (["--sections", "columns,means"], "not \"means\""),
        ]
        for args, message in cases:
            with self.subTest(args=args):
                done = run(self.path, *args)
                self.assertEqual(done.returncode, 2, done.stderr)
                self.assertIn(message, done.stderr)
                self.assertEqual(done.stdout, "")


class GroupLabels(unittest.TestCase):
    """Groups of any label against pandas' groupby on the same file."""

    def check_against_pandas(self, frame, group, columns, report, sort=True):
        complete = frame.dropna(subset=columns + [group])
        grouped = complete.groupby(group, sort=sort)
        labels = list(grouped.groups.keys()) if sort else list(complete[group].unique())
        self.assertEqual([g["code"] for g in report["groups"]], labels)
        means = grouped[columns].mean()
        within = sum((len(rows) - 1) * rows[columns].cov().to_numpy() for _, rows in grouped)
        for g in report["groups"]:
            self.assertEqual(g["n"], int(grouped.size()[g["code"]]))
            np.testing.assert_allclose(g["means"], means.loc[g["code"]].to_numpy(), rtol=1e-12)
        self.assertEqual(report["pooled_divisor"], len(complete) - len(labels))
        np.testing.assert_allclose(matrix(report, "pooled_covariance"),
                                   within / (len(complete) - len(labels)), rtol=1e-10)

    def species_frame(self, rows=3000):
        rng = np.random.default_rng(SEED)
        # Labels may hold the delimiter, quotes and line ends inside their quotes.
        species = np.array(["versicolor", "setosa", "virginica", "Iris, other", "setosa-x",
                            "Iris,\nnew", 'say "hi"\r\nthere'])
        return pd.DataFrame({
            "Species": species[rng.integers(0, len(species), rows)],
            "x": rng.normal(5.0, 1.0, rows),
            "y": rng.normal(3.0, 0.5, rows),
        })

    def test_text_labels_sorted_and_in_order_of_first_appearance(self):
        frame = self.species_frame()
        with TempCsv(frame.to_csv(index=False, float_format="%.17g")) as path:
            sorted_report = run_json(path, "-g", "Species", "-c", "x,y")
            self.check_against_pandas(frame, "Species", ["x", "y"], sorted_report)
            first = None
            for threads, read in (("1", "1M"), ("2", "256"), ("8", "64"), ("3", "1k")):
                with self.subTest(threads=threads, read=read):
                    report = run_json(path, "-g", "Species", "-c", "x,y", "--group-order", "first",
                                      "-j", threads, "--read-size", read)
                    self.check_against_pandas(frame, "Species", ["x", "y"], report, sort=False)
                    codes = [g["code"] for g in report["groups"]]
                    self.assertEqual(codes, first or codes)
                    first = codes

    def test_pandas_decimal_codes_and_years_need_no_range(self):
        rng = np.random.default_rng(SEED + 1)
        rows = 500
        frame = pd.DataFrame({
            "code": pd.array(rng.integers(1, 4, rows), dtype="Int64"),
            "year": rng.integers(1990, 2021, rows),
            "x": rng.normal(0.0, 1.0, rows),
        })
        frame.loc[rng.random(rows) < 0.1, "code"] = pd.NA
        text = frame.astype({"code": "float64"}).to_csv(index=False)
        self.assertIn("\n1.0,", text)
        with TempCsv(text) as path:
            codes = run_json(path, "-g", "code", "-c", "x")
            years = run_json(path, "-g", "year", "-c", "x")
            checked = run(path, "-g", "year", "-c", "x", "--group-range", "1990:2000")
        pandas_frame = frame.astype({"code": "float64"})
        self.check_against_pandas(pandas_frame, "code", ["x"], codes)
        self.assertEqual(codes["rows"]["without_group"], int(frame["code"].isna().sum()))
        self.check_against_pandas(frame, "year", ["x"], years)
        # R's write.csv2 writes the codes as "1,0".
        text2 = frame.astype({"code": "float64"}).to_csv(index=False, sep=";", decimal=",")
        self.assertIn("\n1,0;", text2)
        with TempCsv(text2) as path:
            comma = run_json(path, "-g", "code", "-c", "x", "--decimal", ",")
        self.assertEqual(comma["groups"], codes["groups"])
        self.assertEqual(checked.returncode, 1)
        self.assertIn("outside the group range 1990..2000", checked.stderr)

    def test_too_many_labels_is_an_error_naming_the_line(self):
        lines = "".join(f"id{i},{i % 7}\n" for i in range(50))
        with TempCsv("g,x\n" + lines) as path:
            done = run(path, "-g", "g", "-c", "x", "--max-groups", "20", "-j", "1")
            fine = run_json(path, "-g", "g", "-c", "x", "--max-groups", "50")
        self.assertEqual(done.returncode, 1)
        self.assertIn("line 22, column 1 (\"g\"): the group column holds more than 20 distinct", done.stderr)
        self.assertEqual(done.stdout, "")
        self.assertEqual(len(fine["groups"]), 50)

    def test_too_many_labels_over_the_blocks_is_an_error_naming_the_file(self):
        # Blocks of 64 bytes hold a few labels each: the limit is passed only
        # where the blocks' groups are joined.
        lines = "".join(f"id{i},{i % 7}\n" for i in range(50))
        with TempCsv("g,x\n" + lines) as path:
            done = run(path, "-g", "g", "-c", "x", "--max-groups", "20", "--block-size", "64",
                       "-j", "2")
        self.assertEqual(done.returncode, 1)
        self.assertIn(f"{path}: the group column holds more than 20 distinct", done.stderr)
        self.assertEqual(done.stdout, "")


if __name__ == "__main__":
    unittest.main()
