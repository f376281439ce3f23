"""What ratios that vary from turn to turn say of a limit. No distribution is assumed: an interval of the median ends at
two of the ratios themselves, chosen by rank."""

import math
import statistics

LEVEL = 0.98  # Of the interval. Fewer than 7 ratios have none.


def interval(ratios):
    """(low, high), between which the median lies in LEVEL of all cases at least; endless with too few ratios."""
    ordered, count = sorted(ratios), len(ratios)
    rank, tail = 0, 1  # tail: of 2^count ways to lie above or below the median, those with at most `rank` below.
    while 2 * tail <= (1 - LEVEL) * 2**count:
        rank += 1
        tail += math.comb(count, rank)
    return (ordered[rank - 1], ordered[count - rank]) if rank else (-math.inf, math.inf)


def verdict(ratios, limit, at_least):
    """"yes" or "no" where the whole interval is on that side of the limit, else "undecided"."""
    low, high = interval(ratios)
    if at_least:
        return "yes" if low >= limit else "no" if high < limit else "undecided"
    return "yes" if high <= limit else "no" if low > limit else "undecided"


def of_all(verdicts):
    """Whether each meets its limit."""
    return "no" if "no" in verdicts else "undecided" if "undecided" in verdicts else "yes"


def quartiles(ratios):
    """(lower, median, upper)."""
    if len(ratios) == 1:
        return (ratios[0],) * 3
    return tuple(statistics.quantiles(ratios, method="inclusive"))
