"""Whether the benchmark calls a limit met, not met or undecided as it should, and how it draws pairs for that."""

import unittest
from types import SimpleNamespace
from unittest import mock

import bench
from verdict import verdict

COST = {"reelmill": 1.0, "journaled": 1.05, "copy-direct": 0.9, "records-to-tables": 0.8}  # 5 for the others.


class Turns(bench.Bench):
    """With contestants of the above costs, but that the journal on small samples is better and worse in turn."""

    def measure(self, folder, name, load, samples):
        cost = COST.get(name, 5.0) * (0.8 + self.turns[load] % 2 * 0.6 if (name, load) == ("journaled", "small") else 1)
        return {"contestant": name, "load": load, "samples": samples or 1000, "wallSeconds": cost, "cpuSeconds": cost,
                "closeCpuSeconds": cost / 2, "peakBytes": bench.BLOCK}


class BenchTest(unittest.TestCase):
    def test_a_verdict_is_seldom_wrong_however_often_it_is_asked_for(self):
        # The median lies at the limit: the chance of each number of ratios below it, as long as nothing is decided.
        chances, wrong = {0: 1.0}, 0.0
        for count in range(1, bench.MOST_PAIRS + 1):
            chances = {below: (chances.get(below, 0) + chances.get(below - 1, 0)) / 2 for below in range(count + 1)}
            for below in chances:
                ratios = [0.9] * below + [1.1] * (count - below)
                found = {verdict(ratios, 1, at_least=True), verdict(ratios, 1, at_least=False)}
                self.assertIn(found, ({"undecided"}, {"yes", "no"}))
                if found != {"undecided"}:
                    self.assertGreaterEqual(count, bench.LEAST_PAIRS)
                    wrong += chances[below] / 2
                    chances[below] = 0
        self.assertTrue(0.02 < wrong < 0.05, wrong)

    def test_pairs_are_drawn_in_alternating_order_until_a_limit_is_decided(self):
        turns = Turns(SimpleNamespace(quick=False, minutes=1, build="."))
        with mock.patch("sys.stderr"):
            turns.run(None)
        met = {limit.what.partition(",")[0]: turns.verdict(limit) for limit in bench.limits(turns)
               if limit.what.startswith(("editorial: speed, of copy", "small", "chunks"))}
        self.assertEqual(met, {"editorial: speed": "no", "small: CPU of adding with the journal": "undecided",
                               "chunks: CPU of adding with the journal": "yes"})
        self.assertEqual(turns.turns, {load: bench.LEAST_PAIRS for load in turns.turns} | {"small": bench.MOST_PAIRS})
        pairs = [line["contestant"] for line in turns.lines if line["load"] == "small"][-4 * 14:]
        self.assertEqual(pairs[::2].count("reelmill"), 14)


if __name__ == "__main__":
    unittest.main()
