"""Reads a Prometheus text exposition with prometheus_client's parser (a parser this project
did not write) and prints what it understood, one line per family and per sample:

    FAMILY <name> <type> <help>
    SAMPLE <name> <labels as sorted JSON> <value>

It also applies the naming rules a linter applies: metric and label names of the allowed
characters, a HELP text for every family, counters named with the _total suffix. Exit status
1 with a reason on standard error when the text does not parse or breaks a rule.

    parse_metrics.py FILE
"""

import json
import re
import sys

from prometheus_client.parser import text_string_to_metric_families

METRIC_NAME = re.compile(r"^[a-zA-Z_:][a-zA-Z0-9_:]*$")
LABEL_NAME = re.compile(r"^[a-zA-Z_][a-zA-Z0-9_]*$")


def main():
    with open(sys.argv[1], encoding="utf-8") as f:
        text = f.read()
    try:
        families = list(text_string_to_metric_families(text))
    except Exception as e:  # the parser's own exceptions vary by release
        print("does not parse: %s" % e, file=sys.stderr)
        return 1
    for family in families:
        if not METRIC_NAME.match(family.name):
            print("bad metric name: %r" % family.name, file=sys.stderr)
            return 1
        if not family.documentation:
            print("no HELP for %s" % family.name, file=sys.stderr)
            return 1
        print("FAMILY %s %s %s" % (family.name, family.type, family.documentation))
        for sample in family.samples:
            if family.type == "counter" and not sample.name.endswith("_total"):
                print("counter without _total: %s" % sample.name, file=sys.stderr)
                return 1
            for label in sample.labels:
                if not LABEL_NAME.match(label) or label.startswith("__"):
                    print("bad label name: %r" % label, file=sys.stderr)
                    return 1
            print("SAMPLE %s %s %r" % (sample.name, json.dumps(sample.labels, sort_keys=True),
                                       sample.value))
    return 0


if __name__ == "__main__":
    sys.exit(main())
