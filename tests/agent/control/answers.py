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
values = [None, True, -1, 0, 1e300, 2**64, '', 'up0', '239.1.1.1', '\0\x7f', [1], {'group': 1}]
methods = list(schema['properties']) + ['countersReset', 'diffFile', 'x', '']
for _ in range(1000):
    params = {name: random.choice(values) for name in random.sample(names, 3)}
    answer = ask(random.choice(methods), params if random.randrange(9) else random.choice(values))
    if ('result' in answer) == ('error' in answer):
        sys.exit(str(answer))
print('as documented')
