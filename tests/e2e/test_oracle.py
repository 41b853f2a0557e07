"""vorelstat's figures on the sample data against pandas and NumPy. (Weights
against NumPy, listwise, by pair and by group: test_conventions.)"""
import io
import unittest

import pandas as pd

from common import NUMERIC, SAMPLE, ToolCase, matrix, run_ok, run_json

TIGHT = dict(rtol=1e-11, atol=1e-11)


class OracleCase(ToolCase):
    @classmethod
    def setUpClass(cls):
        cls.frame = pd.read_csv(SAMPLE)

    def assertMomentsOf(self, report, values):
        """Columns, covariance and correlation of the report against pandas on `values`."""
        self.assertEqual([c["name"] for c in report["columns"]], list(values.columns))
        self.assertEqual([c["n"] for c in report["columns"]], values.count().tolist())
        self.assertEqual([c["min"] for c in report["columns"]], values.min().tolist())
        self.assertEqual([c["max"] for c in report["columns"]], values.max().tolist())
        self.assertClose([c["mean"] for c in report["columns"]], values.mean(), **TIGHT)
        self.assertClose([c["sd"] for c in report["columns"]], values.std(), **TIGHT)
        self.assertClose(matrix(report, "covariance"), values.cov(), **TIGHT)
        self.assertClose(matrix(report, "correlation"), values.corr(), **TIGHT)


class Moments(OracleCase):
    def test_listwise_unweighted_against_pandas(self):
        report = run_json(SAMPLE)
        complete = self.frame[["region", "weight"] + NUMERIC].dropna()
        self.assertEqual((report["rows"]["read"], report["rows"]["used"]),
                         (len(self.frame), len(complete)))
        self.assertMomentsOf(report, complete)

    def test_pairwise_unweighted_against_pandas(self):
        report = run_json(SAMPLE, "--pairwise", "-c", ",".join(NUMERIC))
        values = self.frame[NUMERIC]
        present = values.notna().to_numpy().astype(int)
        self.assertEqual(report["rows"]["used"], len(self.frame))
        self.assertEqual(report["rows"]["incomplete"], int((present == 0).any(axis=1).sum()))
        self.assertEqual(report["pair_rows"], (present.T @ present).tolist())
        self.assertMomentsOf(report, values)


class Formats(unittest.TestCase):
    """The three formats carry the same figures."""

    def test_csv_matches_json(self):
        args = [SAMPLE, "-p", "-w", "weight", "-g", "region"]
        report = run_json(*args)
        csv = pd.read_csv(io.StringIO(run_ok(*args, "--format", "csv")), dtype={"value": str},
                          keep_default_na=False)
        columns = csv[csv.section == "column"]
        for column in report["columns"]:
            rows = columns[columns.row == column["name"]].set_index("statistic")["value"]
            for key in ("n", "weight", "mean", "sd", "min", "max"):
                self.assertEqual(float(rows[key]), column[key], f"{column['name']} {key}")
        pairs = csv[(csv.section == "pair") & (csv.statistic == "covariance")]
        names = [c["name"] for c in report["columns"]]
        for _, row in pairs.iterrows():
            i, j = names.index(row["row"]), names.index(row["column"])
            self.assertEqual(float(row["value"]), report["covariance"][i][j])
        pooled = csv[csv.section == "pooled"]
        self.assertEqual(len(pooled), len(names) ** 2)
        means = csv[(csv.section == "group") & (csv.statistic == "mean")]
        self.assertEqual(len(means), len(report["groups"]) * len(names))

    def test_table_shows_the_figures_to_six_digits(self):
        report = run_json(SAMPLE, "-w", "weight")
        table = run_ok(SAMPLE, "-w", "weight")
        section = table.split("\nColumns\n")[1].split("\n\n")[0]
        lines = {line.split()[0]: line.split() for line in section.splitlines()}
        for column in report["columns"]:
            cells = lines[column["name"]]
            self.assertEqual(cells[1], str(column["n"]))
            self.assertEqual(cells[3], "%.6g" % column["mean"])


if __name__ == "__main__":
    unittest.main()
