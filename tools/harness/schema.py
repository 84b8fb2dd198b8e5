"""The JSON Schemas of docs/schema, for every answer and event that a test sees."""

import functools
import json

try:
    import jsonschema
except ImportError:  # the demonstration does without
    jsonschema = None

from .world import PROJECT

# The schema of a controller's answer, by its request.
ANSWERS = {
    "status": "controller-status",
    **dict.fromkeys(("start", "stop", "restart", "wait"), "controller-tunnel"),
    "events": "events",
    "help": "help",
    "stats": "controller-stats",
    **dict.fromkeys(("debug", "resolve", "hello", "info", "shutdown"), "controller-order"),
    "lint": "controller-lint",
    "why": "controller-why",
    "doctor": "controller-doctor",
    "report": "controller-report",
    "decode": "controller-decode",
    "metrics": "controller-metrics",
    **dict.fromkeys(("conf show", "conf init"), "controller-conf"),
}


@functools.cache
def _schemas():
    return {path.name: json.loads(path.read_text()) for path in (PROJECT / "docs/schema").glob("*.json")}


@functools.cache
def _validator(name):
    schema = _schemas()[f"{name}.json"]
    jsonschema.Draft202012Validator.check_schema(schema)
    return jsonschema.Draft202012Validator(schema, resolver=jsonschema.RefResolver("", schema, store=_schemas()))


def check(name, value):
    """Fails when the value is not what docs/schema/NAME.json describes."""
    if jsonschema is None:
        return
    error = jsonschema.exceptions.best_match(_validator(name).iter_errors(value))
    assert error is None, f"{name}: {error.json_path}: {error.message}"


def check_controller_answer(answer):
    """Holds an answer of the controller, and the events in it, against their schemas. Returns it."""
    check(ANSWERS.get(answer["request"], "answer"), answer)
    for event in answer.get("events", []) if answer["request"] == "events" else []:
        check("controller-event", event)
    return answer
