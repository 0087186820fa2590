#!/usr/bin/env python3
"""Holds JSON outputs of tarvoctl, files given or standard input line by line, against its schema."""

import json
import sys

import jsonschema


def documents(names):
    if not names:
        for line in sys.stdin:
            yield "standard input", json.loads(line)
    for name in names:
        with open(name, encoding="utf-8") as file:
            yield name, json.load(file)


def main(schema_file, names):
    with open(schema_file, encoding="utf-8") as file:
        schema = json.load(file)
    validator_class = jsonschema.validators.validator_for(schema)
    validator_class.check_schema(schema)
    commands = {branch["$ref"].rsplit("/", 1)[1] for branch in schema["oneOf"]}
    definitions = schema["$defs"]
    for name, document in documents(names):
        command = "error" if "error" in document else document.get("command")
        if command not in commands:
            sys.exit(f"{name}: the schema does not know the command {command!r}")
        # Against its own branch alone, as the complaint then names the fault.
        own = {"$schema": schema["$schema"], "$defs": definitions, **definitions[command]}
        for error in validator_class(own).iter_errors(document):
            sys.exit(f"{name}: {list(error.absolute_path)}: {error.message}")
        validator_class(schema).validate(document)
        print(command)


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2:])
