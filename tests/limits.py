"""Fails when a test that ctest knows has no time limit of its own."""
import json
import subprocess
import sys

ctest, build = sys.argv[1:]
shown = subprocess.run([ctest, "--test-dir", build, "--show-only=json-v1"], check=True, stdout=subprocess.PIPE).stdout
tests = [test for test in json.loads(shown)["tests"] if not test["name"].endswith("_NOT_BUILT")]
unlimited = [test["name"] for test in tests if not any(p["name"] == "TIMEOUT" and p["value"] > 0 for p in test.get("properties", []))]
print(f"{len(tests)} tests, {len(unlimited)} without a limit", *unlimited, sep="\n")
sys.exit(not tests or bool(unlimited))
