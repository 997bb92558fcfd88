#!/usr/bin/env python3
"""A remote node as the import plugin's tests need it, written with python3-paho-mqtt: it
connects with MQTT 5 and the last will "offline" on PREFIX/NODE/status, publishes "online",
and answers the requests on PREFIX/NODE/+/+/command on their response topic with their
correlation data. Its devices (all of service lights):

  lamp-1    get: its state; set: the properties merged in, the new state published retained
  broken-1  every request refused: {"error": "the bulb is burnt out", "error_name": "HXF_ERROR_OPERATION_FAILED"}
  mute-1    never answers

It prints "ready" once subscribed and online, and "request DEVICE OPERATION" for each request it reads.
Usage: remote_node.py PORT NODE [PREFIX]"""
import json
import sys

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

port, node = int(sys.argv[1]), sys.argv[2]
prefix = sys.argv[3] if len(sys.argv) > 3 else "hxf"
state = {"lamp-1": {"device_id": "lamp-1", "power": True, "brightness": 70}}
status = f"{prefix}/{node}/status"


def on_connect(client, userdata, flags, rc, properties=None):
    client.subscribe(f"{prefix}/{node}/+/+/command", qos=1)


online = []


def on_subscribe(client, userdata, mid, granted, properties=None):
    online.append(client.publish(status, "online", qos=1, retain=True).mid)


def on_publish(client, userdata, mid):
    if mid in online:  # the broker has it: whoever subscribes from now on reads it
        print("ready", flush=True)


def on_message(client, userdata, message):
    device = message.topic.split("/")[3]
    request = json.loads(message.payload)
    operation = request["operation"]
    print(f"request {device} {operation}", flush=True)
    if device == "mute-1":
        return
    if device == "broken-1":
        answer = {"error": "the bulb is burnt out", "error_name": "HXF_ERROR_OPERATION_FAILED"}
    elif operation == "set":
        state[device].update(request.get("properties", {}))
        answer = state[device]
        client.publish(f"{prefix}/{node}/lights/{device}/state", json.dumps(state[device]), qos=1,
                       retain=True)
    else:
        answer = state[device]
    reply = Properties(PacketTypes.PUBLISH)
    reply.CorrelationData = message.properties.CorrelationData
    client.publish(message.properties.ResponseTopic, json.dumps(answer), qos=1, properties=reply)


client = mqtt.Client(client_id=f"remote-{node}", protocol=mqtt.MQTTv5)
client.will_set(status, "offline", qos=1, retain=True)
client.on_connect = on_connect
client.on_subscribe = on_subscribe
client.on_message = on_message
client.on_publish = on_publish
client.connect("127.0.0.1", port, keepalive=10)
client.loop_forever()
