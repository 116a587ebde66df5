#!/usr/bin/python3
"""Checks one `tarnctl --json` answer against the JSON Schema that
docs/tarnctl.md gives for its subcommand.

usage: tarnctl_schema.py DOC SUBCOMMAND < ANSWER.json

The schema is the fenced ```json block that directly follows the line
"<!-- json-schema: SUBCOMMAND -->" in DOC. Exit 0 when the answer is valid,
1 when it is not (the reasons on standard error), 2 when DOC has no schema for
SUBCOMMAND or either text is not JSON.
"""
import json
import re
import sys

import jsonschema


def schema_of(doc_text, subcommand):
    marker = re.escape("<!-- json-schema: %s -->" % subcommand)
    found = re.search(marker + r"\s*\n```json\n(.*?)\n```", doc_text, re.S)
    return json.loads(found.group(1)) if found else None


def main():
    if len(sys.argv) != 3:
        print(__doc__.strip().splitlines()[2], file=sys.stderr)
        return 2
    with open(sys.argv[1], encoding="utf-8") as doc:
        try:
            schema = schema_of(doc.read(), sys.argv[2])
        except json.JSONDecodeError as error:
            print("the schema of %s is not JSON: %s" % (sys.argv[2], error), file=sys.stderr)
            return 2
    if schema is None:
        print("no schema for %s in %s" % (sys.argv[2], sys.argv[1]), file=sys.stderr)
        return 2
    try:
        answer = json.load(sys.stdin)
    except json.JSONDecodeError as error:
        print("the answer is not JSON: %s" % error, file=sys.stderr)
        return 2
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema)
    errors = sorted(validator.iter_errors(answer), key=lambda e: list(e.absolute_path))
    for error in errors:
        print("%s: %s" % ("/".join(str(p) for p in error.absolute_path) or "(top)", error.message),
              file=sys.stderr)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
