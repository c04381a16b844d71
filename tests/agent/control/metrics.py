# Prints the figures that are not zero, as a monitoring system understands them.
import sys
import urllib.request

from prometheus_client.openmetrics.parser import text_string_to_metric_families

unsteady = ('process', 'ihproxy_loop', 'ihproxy_uptime')
if sys.argv[1] == '-':
    text = sys.stdin.read()
else:
    text = urllib.request.urlopen(sys.argv[1]).read().decode()
for family in text_string_to_metric_families(text):
    for sample in family.samples:
        if sample.value and not sample.name.startswith(unsteady):
            print(sample.name, *(value for _, value in sorted(sample.labels.items())), sample.value)
