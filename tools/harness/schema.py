"""The JSON Schemas of docs/schema, for every answer and event that a test sees."""

import functools
import json

try:
    import jsonschema
except ImportError:  # the demonstration does without
    jsonschema = None

from .world import PROJECT


@functools.cache
def _validator(name):
    schema = json.loads((PROJECT / f"docs/schema/{name}.json").read_text())
    jsonschema.Draft202012Validator.check_schema(schema)
    return jsonschema.Draft202012Validator(schema)


def check(name, value):
    """Fails when the value is not what docs/schema/NAME.json describes."""
    if jsonschema is None:
        return
    error = jsonschema.exceptions.best_match(_validator(name).iter_errors(value))
    assert error is None, f"{name}: {error.json_path}: {error.message}"
