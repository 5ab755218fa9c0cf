#!/usr/bin/env python3
"""Says of JSON documents whether a JSON Schema takes them. Usage: schema_verdicts.py SCHEMA DOCUMENT…

A line for each document: "valid" or "invalid", a blank, its path. Ends with 0 when it could say so for each."""

import json
import sys

import jsonschema


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema)
    for path in sys.argv[2:]:
        with open(path, encoding="utf-8") as file:
            document = json.load(file)
        print("valid" if validator.is_valid(document) else "invalid", path)


if __name__ == "__main__":
    main()
