"""Lists what the tests did not go through: what `llvm-cov export` tells on standard input, of the
files that are named.

A function that was compiled into several programs counts as one: what it missed in one of them it
may have met in another.
"""
import collections
import json
import sys

CODE = 0  # the kind of a region that is neither a gap nor skipped


def main():
    wanted = set(sys.argv[1:])
    regions = collections.Counter()
    branches = collections.defaultdict(collections.Counter)
    for function in json.load(sys.stdin)["data"][0]["functions"]:
        files = function["filenames"]
        for *place, count, file, _, kind in function["regions"]:
            if files[file] in wanted and kind == CODE:
                regions[files[file], *place] += count
        for *place, true, false, file, _, _ in function["branches"]:
            if files[file] in wanted:
                branches[files[file], *place].update(true=true, false=false)

    def tell(place, what):
        file, line, column, last_line, last_column = place
        end = f"{last_line}:{last_column}" if last_line != line else last_column
        print(f"{file.rpartition('/')[2]}:{line}:{column}-{end}: {what}")

    for place, count in sorted(regions.items()):
        if count == 0:
            tell(place, "never run")
    for place, counts in sorted(branches.items()):
        for way, count in sorted(counts.items()):
            if count == 0:
                tell(place, f"a condition never {way}")


main()
