#!/usr/bin/python3
"""Writes households.csv, the sample data set of vorelstat (fixed seed).

A made-up survey of 240 households in four regions. Columns: household id
(text), region (group code 1-4), weight (frequency weight: how many households
of the population each row stands for), members, age of the head of
household, income (thousand a year), rent (a month; empty for owners who pay
none), rooms, commute (minutes one way; NA for those who do not commute).
About one row in six has a missing cell.
"""
import numpy as np

rng = np.random.default_rng(20240611)
n = 240
region = rng.choice([1, 2, 3, 4], size=n, p=[0.35, 0.25, 0.25, 0.15])
weight = rng.choice([1, 2, 3, 4, 5], size=n, p=[0.3, 0.3, 0.2, 0.15, 0.05])
members = np.clip(np.round(rng.gamma(2.2, 1.1, size=n)) + 1, 1, 8).astype(int)
age = np.clip(np.round(rng.normal(47, 15, size=n)), 18, 91).astype(int)
income = np.round(np.exp(rng.normal(3.6 + 0.12 * (region == 1) + 0.01 * (age - 47) / 5
                                     + 0.08 * members, 0.45, size=n)), 1)
rooms = np.clip(np.round(1 + 0.6 * members + 0.02 * income + rng.normal(0, 0.9, size=n)), 1, 12).astype(int)
rent = np.round(250 + 9.5 * income + 60 * rooms + 90 * (region == 1) + rng.normal(0, 120, size=n), -1)
commute = np.clip(np.round(rng.gamma(2.0, 12.0, size=n) + 10 * (region == 4)), 2, 150).astype(int)

rent_missing = rng.random(n) < 0.07
commute_missing = rng.random(n) < 0.08
age_missing = rng.random(n) < 0.02

with open("households.csv", "w") as out:
    out.write("household,region,weight,members,age,income,rent,rooms,commute\n")
    for i in range(n):
        cells = [
            f"H{i + 1:04d}", str(region[i]), str(weight[i]), str(members[i]),
            "" if age_missing[i] else str(age[i]),
            f"{income[i]:.1f}",
            "" if rent_missing[i] else f"{rent[i]:.0f}",
            str(rooms[i]),
            "NA" if commute_missing[i] else str(commute[i]),
        ]
        out.write(",".join(cells) + "\n")
