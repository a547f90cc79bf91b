"""Scrapes a Prometheus endpoint over HTTP and prints every sample as parsed
by the Prometheus client library's exposition-format parser, one per line:

    SAMPLE_NAME{LABEL=VALUE,...} VALUE

usage: tools_scrape.py URL
"""
import sys
import urllib.request

from prometheus_client.parser import text_string_to_metric_families

with urllib.request.urlopen(sys.argv[1], timeout=10) as response:
    if response.status != 200:
        sys.exit("HTTP status %d" % response.status)
    text = response.read().decode("utf-8")

for family in text_string_to_metric_families(text):
    for sample in family.samples:
        labels = ",".join("%s=%s" % kv for kv in sorted(sample.labels.items()))
        print("%s{%s} %r" % (sample.name, labels, sample.value))
