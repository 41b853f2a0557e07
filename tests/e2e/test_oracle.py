"""vorelstat's figures on the sample data against pandas and NumPy. (Weights
against NumPy, listwise and by pair: test_conventions.)"""
import io
import unittest

import numpy as np
import pandas as pd

from common import NUMERIC, SAMPLE, TempCsv, matrix, run, run_json


class OracleCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.frame = pd.read_csv(SAMPLE)

    def assertClose(self, actual, expected, rtol=1e-11, atol=1e-11, msg=None):
        np.testing.assert_allclose(np.asarray(actual, dtype=float), np.asarray(expected, dtype=float),
                                   rtol=rtol, atol=atol, err_msg=msg or "")


class Listwise(OracleCase):
    def test_unweighted_against_pandas(self):
        report = run_json(SAMPLE)
        self.assertEqual([c["name"] for c in report["columns"]], ["region", "weight"] + NUMERIC)
        complete = self.frame[["region", "weight"] + NUMERIC].dropna()
        self.assertEqual(report["rows"]["read"], len(self.frame))
        self.assertEqual(report["rows"]["used"], len(complete))
        for column in report["columns"]:
            series = complete[column["name"]]
            self.assertEqual(column["n"], len(series))
            self.assertEqual(column["min"], series.min())
            self.assertEqual(column["max"], series.max())
            self.assertClose(column["mean"], series.mean())
            self.assertClose(column["sd"], series.std())
        self.assertClose(matrix(report, "covariance"), complete.cov().to_numpy())
        self.assertClose(matrix(report, "correlation"), complete.corr().to_numpy())


class Pairwise(OracleCase):
    def test_unweighted_against_pandas(self):
        report = run_json(SAMPLE, "--pairwise", "-c", ",".join(NUMERIC))
        values = self.frame[NUMERIC]
        present = values.notna().to_numpy().astype(int)
        self.assertEqual(report["rows"]["used"], len(self.frame))
        self.assertEqual(report["rows"]["incomplete"], int((present == 0).any(axis=1).sum()))
        self.assertEqual(np.array(report["pair_rows"]).tolist(), (present.T @ present).tolist())
        self.assertClose([c["mean"] for c in report["columns"]], values.mean().to_numpy())
        self.assertClose([c["sd"] for c in report["columns"]], values.std().to_numpy())
        self.assertEqual([c["min"] for c in report["columns"]], values.min().tolist())
        self.assertClose(matrix(report, "covariance"), values.cov().to_numpy())
        self.assertClose(matrix(report, "correlation"), values.corr().to_numpy())


class Groups(OracleCase):
    """Pairwise deletion by group still takes complete rows. (Weighted groups
    against NumPy: test_conventions.)"""

    def test_unweighted_pairwise_groups_take_complete_rows(self):
        report = run_json(SAMPLE, "-p", "-g", "region", "-c", ",".join(NUMERIC))
        complete = self.frame.dropna(subset=NUMERIC)
        codes = sorted(complete["region"].unique())
        self.assertEqual([g["code"] for g in report["groups"]], codes)
        within = np.zeros((len(NUMERIC), len(NUMERIC)))
        for group in report["groups"]:
            rows = complete[complete["region"] == group["code"]]
            self.assertEqual((group["n"], group["weight"]), (len(rows), len(rows)))
            self.assertClose(group["means"], rows[NUMERIC].mean().to_numpy())
            within += rows[NUMERIC].cov().to_numpy() * (len(rows) - 1)
        divisor = len(complete) - len(codes)
        self.assertEqual(report["pooled_divisor"], divisor)
        self.assertClose(matrix(report, "pooled_covariance"), within / divisor)


class Formats(unittest.TestCase):
    """The three formats carry the same figures."""

    def test_csv_matches_json(self):
        args = [SAMPLE, "-p", "-w", "weight", "-g", "region"]
        report = run_json(*args)
        done = run(*args, "--format", "csv")
        self.assertEqual(done.returncode, 0, done.stderr)
        csv = pd.read_csv(io.StringIO(done.stdout), dtype={"value": str}, keep_default_na=False)
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
        done = run(SAMPLE, "-w", "weight")
        self.assertEqual(done.returncode, 0, done.stderr)
        section = done.stdout.split("\nColumns\n")[1].split("\n\n")[0]
        lines = {line.split()[0]: line.split() for line in section.splitlines()}
        for column in report["columns"]:
            cells = lines[column["name"]]
            self.assertEqual(cells[1], str(column["n"]))
            self.assertEqual(cells[3], "%.6g" % column["mean"])
        for title in ("Columns", "Covariance", "Correlation"):
            self.assertIn("\n" + title + "\n", done.stdout)

    def test_delimiters_and_quotes(self):
        frame = pd.read_csv(SAMPLE)
        expected = run_json(SAMPLE, "-c", "income,rent")
        for sep, name in ((";", "semi"), ("\t", "tab")):
            with TempCsv(frame.to_csv(index=False, sep=sep, quoting=1)) as path:
                report = run_json(path, "-c", "income,rent")
            self.assertEqual(report["covariance"], expected["covariance"], name)


if __name__ == "__main__":
    unittest.main()
