# Asks the agent everything, checks the answers against their schema, and then asks anything. Every
# request is answered all the same.
import json
import random
import socket
import sys

import jsonschema

path, schema = sys.argv[1], json.load(open(sys.argv[2]))
client = socket.socket(socket.AF_UNIX)
client.settimeout(20)
client.connect(path)
lines = client.makefile()


def ask(method, params):
    request = {'jsonrpc': '2.0', 'id': 1, 'method': method, 'params': params}
    client.sendall(json.dumps(request).encode() + b'\n')
    return json.loads(lines.readline())


del schema['properties']['stop']  # nothing could be asked afterwards
needed = {'why': {'interface': 'up0', 'group': '239.1.1.2'}, 'log': {'level': 'info'},
          'reload': {'undoAfter': 60}}
for method, description in schema['properties'].items():
    answer = ask(method, needed.get(method, {}))
    if 'result' not in answer:
        sys.exit(f'{method}: {answer}')
    jsonschema.validate(answer['result'], description | {'definitions': schema['definitions']})

random.seed(1)
names = ['interface', 'group', 'groups', 'vrf', 'origin', 'list', 'last', 'after', 'undoAfter',
         'level', 'for', 'file', 'x']
values = [None, True, -1, 0, 1e300, 2**64, '', 'up0', '239.1.1.1', '\0\x7f']


def anything(depth=0):
    kind = random.randrange(3) if depth < 4 else 0
    if kind == 0:
        return random.choice(values)
    some = range(random.randrange(3))
    if kind == 1:
        return [anything(depth + 1) for _ in some]
    return {random.choice(names): anything(depth + 1) for _ in some}


methods = list(schema['properties']) + ['countersReset', 'diffFile', 'x', '']
for _ in range(1000):
    params = {name: anything(1) for name in random.sample(names, 3)}
    if random.randrange(9) == 0:
        params = anything()
    answer = ask(random.choice(methods), params)
    if ('result' in answer) == ('error' in answer):
        sys.exit(str(answer))
print('as documented')
