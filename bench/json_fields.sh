# Shared by the bench scripts, which source it.

# Prints the JSON fields named in $2.. (dotted paths) of the object in file $1,
# one per line; null, a missing key or an unreadable file print "-".
json_fields() {
  python3 - "$@" <<'PY'
import json, sys
try:
    with open(sys.argv[1]) as f:
        doc = json.loads(f.read())
except Exception:
    doc = {}
for path in sys.argv[2:]:
    value = doc
    for key in path.split('.'):
        value = value.get(key) if isinstance(value, dict) else None
    print('-' if value is None else value)
PY
}
