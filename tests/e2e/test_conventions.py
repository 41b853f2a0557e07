"""The divisor conventions (--ddof, --weight-kind), --exclude and --sections
against NumPy on data generated here: weighted means, weight sums and
covariances, listwise and of each pair."""
import unittest

import numpy as np
import pandas as pd

from common import (BAD_DATA, BAD_USAGE, COLUMNS, CsvCase, ScratchCase, make_frame, matrix,
                    run, run_json, run_ok)

SEED = 20261124


def numpy_cov(rows, kind, ddof):
    """NumPy's covariance of the value columns of `rows` under the kind's weight column."""
    weights = rows[WEIGHT[kind]].to_numpy()
    key = "fweights" if kind == "frequency" else "aweights"
    return np.cov(rows[COLUMNS].to_numpy(), rowvar=False, ddof=ddof, **{key: weights})


WEIGHT = {"frequency": "f", "analytic": "r"}
CASES = [(kind, ddof) for kind in WEIGHT for ddof in (0, 1, 2)]


class Conventions(CsvCase):
    frame = make_frame()
    text = frame.to_csv(index=False, float_format="%.17g")

    def report(self, kind, ddof, *args):
        return run_json(self.csv, "-c", ",".join(COLUMNS), "-w", WEIGHT[kind], "--weight-kind", kind,
                        "--ddof", str(ddof), *args)

    def assertWeightSum(self, kind, actual, expected):
        # Whole frequency weights add up exactly, in any order.
        (self.assertEqual if kind == "frequency" else self.assertClose)(actual, expected)

    def test_listwise_against_numpy_cov(self):
        complete = self.frame.dropna(subset=COLUMNS)
        for kind, ddof in CASES:
            with self.subTest(kind=kind, ddof=ddof):
                report = self.report(kind, ddof)
                self.assertEqual((report["weight_kind"], report["ddof"]), (kind, ddof))
                self.assertWeightSum(kind, report["weight_sum"], complete[WEIGHT[kind]].sum())
                means = np.average(complete[COLUMNS], axis=0, weights=complete[WEIGHT[kind]])
                self.assertClose([c["mean"] for c in report["columns"]], means)
                cov = numpy_cov(complete, kind, ddof)
                sd = np.sqrt(np.diag(cov))
                self.assertClose(matrix(report, "covariance"), cov)
                self.assertClose([c["sd"] for c in report["columns"]], sd)
                self.assertClose(matrix(report, "correlation"), cov / np.outer(sd, sd))

    def test_pairwise_against_numpy_cov_of_each_pair(self):
        for kind, ddof in CASES:
            report = self.report(kind, ddof, "-p")
            cov, weights = matrix(report, "covariance"), matrix(report, "pair_weights")
            for i, x in enumerate(COLUMNS):
                for j, y in enumerate(COLUMNS):
                    with self.subTest(kind=kind, ddof=ddof, pair=(x, y)):
                        both = self.frame.dropna(subset=[x, y])
                        self.assertWeightSum(kind, weights[i, j], both[WEIGHT[kind]].sum())
                        self.assertClose(cov[i, j], numpy_cov(both, kind, ddof)[i, j])

    def test_groups_against_numpy_cov_of_each_group(self):
        complete = self.frame.dropna(subset=COLUMNS)
        for kind, ddof in CASES:
            with self.subTest(kind=kind, ddof=ddof):
                # Blocks of 4k, so that each group's figures are joined over several.
                report = self.report(kind, ddof, "-g", "g", "--group-covariance", "--block-size", "4k")
                within, divisors = 0.0, 0.0
                for group in report["groups"]:
                    rows = complete[complete["g"] == group["code"]]
                    cov = numpy_cov(rows, kind, ddof)
                    self.assertClose(matrix(group, "covariance"), cov, msg=f"group {group['code']}")
                    w = rows[WEIGHT[kind]].to_numpy()
                    divisor = w.sum() - ddof * (1 if kind == "frequency" else (w ** 2).sum() / w.sum())
                    within += cov * divisor
                    divisors += divisor
                self.assertClose(report["pooled_divisor"], divisors)
                self.assertClose(matrix(report, "pooled_covariance"), within / divisors)

    def test_divisor_not_positive_is_undefined_with_a_note(self):
        # Two rows of analytic weights 1 and 3: W = 4, V = 10, so ddof 1
        # divides by 1.5 and ddof 2 by -1: no figure.
        path = self.write("two.csv", "x,y,w\n1,2,1\n4,7,3\n")
        one = run_json(path, "-c", "x,y", "-w", "w", "--weight-kind", "analytic")
        two = run_json(path, "-c", "x,y", "-w", "w", "--weight-kind", "analytic", "--ddof", "2")
        expected = np.cov(np.array([[1.0, 2.0], [4.0, 7.0]]), rowvar=False, aweights=[1.0, 3.0])
        self.assertClose(matrix(one, "covariance"), expected)
        self.assertTrue(np.isnan(matrix(two, "covariance")).all())
        self.assertTrue(any("divisor W - 2 V / W is not positive" in note for note in two["notes"]))

    def test_table_head_names_a_divisor_other_than_the_default(self):
        default = run_ok(self.csv, "-c", "a,b", "-w", "f")
        analytic = run_ok(self.csv, "-c", "a,b", "-w", "r", "--weight-kind", "analytic", "--ddof", "0")
        self.assertNotIn("divisor", default.split("\n\n")[0])
        self.assertIn("divisor     W (analytic weights, ddof 0)", analytic)


class DecimalComma(ScratchCase):
    """--decimal , against pandas' read_csv(sep=';', decimal=',')."""

    def test_listwise_and_pairwise_against_pandas(self):
        for seed, args in ((1, []), (2, ["-p", "-j", "2", "--read-size", "4k"])):
            # Six decimals, which pandas reads exactly with a decimal comma.
            frame = make_frame(3000, 0.05, seed).round(6)
            path = self.write("comma.csv", frame.to_csv(sep=";", decimal=",", index=False))
            report = run_json(path, "--decimal", ",", *args)
            theirs = pd.read_csv(path, sep=";", decimal=",")
            used = theirs if args else theirs.dropna()
            self.assertEqual([c["name"] for c in report["columns"]], list(theirs.columns))
            self.assertEqual(report["rows"]["used"], len(used))
            self.assertEqual([c["min"] for c in report["columns"]], used.min().tolist())
            self.assertEqual([c["max"] for c in report["columns"]], used.max().tolist())
            self.assertClose([c["mean"] for c in report["columns"]], used.mean(), rtol=1e-11)
            # Columns nearly uncorrelated, one near 1e6: the bound is on the
            # difference in units of the spreads.
            scale = np.outer(used.std(), used.std())
            self.assertClose(matrix(report, "covariance") / scale, used.cov() / scale, atol=1e-10)
            self.assertClose(matrix(report, "correlation"), used.corr(), atol=1e-10)
        # One column and no delimiter in the header: the semicolon is taken.
        report = run_json("-", "--decimal", ",", stdin="x\n1,5\n2,5\n")
        self.assertEqual(report["columns"][0]["mean"], 2.0)


class ColumnsAndSections(CsvCase):
    text = make_frame(rows=60).to_csv(index=False)

    def test_exclude_leaves_columns_out_of_either_choice(self):
        chosen = run_json(self.csv, "--exclude", "f,r,g")
        self.assertEqual([c["name"] for c in chosen["columns"]], COLUMNS)
        self.assertEqual([s["name"] for s in chosen["skipped_columns"]], ["f", "r", "g"])
        named = run_json(self.csv, "-c", "a,b,c", "--exclude", "b")
        self.assertEqual([c["name"] for c in named["columns"]], ["a", "c"])
        full = run_json(self.csv, "-c", "a,c")
        self.assertEqual(named["covariance"], full["covariance"])

    def test_sections_choose_what_is_printed(self):
        # Each section: its keys in the JSON report, its title in the table.
        sections = {"columns": (["columns"], "Columns"), "covariance": (["covariance"], "Covariance"),
                    "correlation": (["correlation"], "Correlation"),
                    "pairs": (["pair_rows", "pair_weights"], "Rows of each pair"),
                    "groups": (["groups"], "Means by group of g"),
                    "pooled": (["pooled_divisor", "pooled_covariance"], "Pooled within-group covariance")}
        args = [self.csv, "-p", "-c", "a,b", "-g", "g"]
        full = run_json(*args)
        for chosen in (["columns"], ["pairs", "pooled"], ["covariance", "groups"]):
            with self.subTest(sections=chosen):
                report = run_json(*args, "--sections", ",".join(chosen))
                table = run_ok(*args, "--sections", ",".join(chosen))
                for section, (keys, title) in sections.items():
                    self.assertEqual("\n" + title in table, section in chosen, title)
                    for key in keys:
                        self.assertEqual(report.get(key), full[key] if section in chosen else None, key)

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
                self.assertFails(run(self.csv, *args), BAD_USAGE, message)


class GroupLabels(ScratchCase):
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
        path = self.write("species.csv", frame.to_csv(index=False, float_format="%.17g"))
        sorted_report = run_json(path, "-g", "Species", "-c", "x,y")
        self.check_against_pandas(frame, "Species", ["x", "y"], sorted_report)
        # Over threads and read sizes the order is the same: the tool's
        # ReproducibleThreaded tests.
        report = run_json(path, "-g", "Species", "-c", "x,y", "--group-order", "first",
                          "-j", "3", "--read-size", "256")
        self.check_against_pandas(frame, "Species", ["x", "y"], report, sort=False)

    def test_pandas_decimal_codes_and_years_need_no_range(self):
        rng = np.random.default_rng(SEED + 1)
        frame = pd.DataFrame({"code": rng.integers(1, 4, 500).astype(float),
                              "year": rng.integers(1990, 2021, 500), "x": rng.normal(0.0, 1.0, 500)})
        frame.loc[rng.random(500) < 0.1, "code"] = np.nan
        # pandas writes the codes as "1.0", R's write.csv2 as "1,0".
        r_text = frame.to_csv(index=False, sep=";", decimal=",")
        self.assertIn("\n1,0;", r_text)
        path = self.write("codes.csv", frame.to_csv(index=False))
        comma = self.write("comma.csv", r_text)
        codes = run_json(path, "-g", "code", "-c", "x")
        self.check_against_pandas(frame, "code", ["x"], codes)
        self.assertEqual(codes["rows"]["without_group"], int(frame["code"].isna().sum()))
        self.check_against_pandas(frame, "year", ["x"], run_json(path, "-g", "year", "-c", "x"))
        self.assertEqual(run_json(comma, "-g", "code", "-c", "x", "--decimal", ",")["groups"],
                         codes["groups"])

    def test_too_many_labels_is_an_error_naming_the_line_or_the_file(self):
        lines = "".join(f"id{i},{i % 7}\n" for i in range(50))
        path = self.write("labels.csv", "g,x\n" + lines)
        fine = run_json(path, "-g", "g", "-c", "x", "--max-groups", "50")
        self.assertEqual(len(fine["groups"]), 50)
        # Blocks of 64 bytes hold a few labels each: the limit is passed
        # only where the blocks' groups are joined.
        for args, where in ((["-j", "1"], path + ', line 22, column 1 ("g"): '),
                            (["--block-size", "64", "-j", "2"], path + ": ")):
            with self.subTest(args=args):
                done = run(path, "-g", "g", "-c", "x", "--max-groups", "20", *args)
                self.assertFails(done, BAD_DATA,
                                 where + "the group column holds more than 20 distinct")


if __name__ == "__main__":
    unittest.main()
