#!/usr/bin/env python3
"""MQTT 5 request/response as a third-party client does it (python3-paho-mqtt).

mqtt_request.py PORT [options] [TOPIC PAYLOAD]...
Subscribes to its reply topic, prints "subscribed", publishes each PAYLOAD to its TOPIC with
the reply topic as Response Topic and "c1", "c2"... as Correlation Data, then prints each reply
as "CORRELATION PAYLOAD" ("-" without correlation data) until --expect replies came (default:
one per request), or --wait seconds passed (exit 1).
"""
import argparse
import sys
import threading
import time

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

parser = argparse.ArgumentParser()
parser.add_argument("port", type=int)
parser.add_argument("pairs", nargs="*")
parser.add_argument("--reply", default="test/reply")
parser.add_argument("--expect", type=int)
parser.add_argument("--wait", type=float, default=10)
parser.add_argument("--user")
parser.add_argument("--password")
parser.add_argument("--cafile")
parser.add_argument("--cert")
parser.add_argument("--key")
args = parser.parse_intermixed_args()
requests = list(zip(args.pairs[0::2], args.pairs[1::2]))
expect = len(requests) if args.expect is None else args.expect

subscribed = threading.Event()
done = threading.Event()
replies = []


def on_connect(client, userdata, flags, reason, properties):
    if reason != 0:
        print("refused", reason, flush=True)
        done.set()
        return
    client.subscribe(args.reply, qos=1)


def on_subscribe(client, userdata, mid, reasons, properties):
    subscribed.set()


def on_message(client, userdata, message):
    correlation = getattr(message.properties, "CorrelationData", None)
    replies.append(message)
    print((correlation.decode() if correlation else "-"), message.payload.decode(errors="replace"),
          flush=True)
    if len(replies) >= expect:
        done.set()


client = mqtt.Client(client_id="test-%d" % time.monotonic_ns(), protocol=mqtt.MQTTv5)
if args.user:
    client.username_pw_set(args.user, args.password)
if args.cafile:
    client.tls_set(ca_certs=args.cafile, certfile=args.cert, keyfile=args.key)
client.on_connect = on_connect
client.on_subscribe = on_subscribe
client.on_message = on_message
client.connect("127.0.0.1", args.port)
client.loop_start()
if not subscribed.wait(args.wait):
    print("not subscribed within %s s" % args.wait, flush=True)
    sys.exit(1)
print("subscribed", flush=True)
for number, (topic, payload) in enumerate(requests, 1):
    properties = Properties(PacketTypes.PUBLISH)
    properties.ResponseTopic = args.reply
    properties.CorrelationData = ("c%d" % number).encode()
    client.publish(topic, payload, qos=1, properties=properties)
ok = expect == 0 or done.wait(args.wait)
client.loop_stop()
client.disconnect()
if not ok:
    print("%d of %d replies within %s s" % (len(replies), expect, args.wait), flush=True)
sys.exit(0 if ok else 1)
