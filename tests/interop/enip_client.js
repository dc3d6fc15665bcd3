// An independent EtherNet/IP client against plc-sim: discovery by broadcast,
// over UDP and TCP, then a session, a Forward_Open, the Identity object over the
// connection and a Forward_Close, then the Identity object through
// Unconnected_Send, all as the client library builds and parses them. Exits 0
// when every answer made sense to it.
//
// usage: node enip_client.js HOST PORT   (NODE_PATH must reach st-ethernet-ip)
"use strict";
const dgram = require("dgram");
const net = require("net");
const { Controller, Browser, EthernetIP } = require("st-ethernet-ip");

const [host, portText] = process.argv.slice(2);
const port = Number(portText);
const { header, CPF, commands } = EthernetIP.encapsulation;
const kProductName = "plc-sim controller simulator";

function check(condition, what) {
    if (!condition) throw new Error("unexpected answer: " + what);
    console.log("ok   " + what);
}

function udpListIdentity() {
    return new Promise((resolve, reject) => {
        const socket = dgram.createSocket("udp4");
        socket.on("message", (msg) => {
            socket.close();
            resolve(Browser.prototype._parseListIdentityResponse(msg));
        });
        socket.on("error", reject);
        socket.send(header.build(commands.ListIdentity), port, host);
    });
}

// One request without a session on a TCP connection of its own; the items.
function tcpList(command) {
    return new Promise((resolve, reject) => {
        const socket = net.connect(port, host, () => socket.write(header.build(command)));
        let received = Buffer.alloc(0);
        socket.on("data", (data) => {
            received = Buffer.concat([received, data]);
            if (received.length < 24 || received.length < 24 + received.readUInt16LE(2)) return;
            socket.end();
            const reply = header.parse(received);
            check(reply.commandCode === command && reply.statusCode === 0,
                  `TCP command 0x${command.toString(16)} answered with status 0`);
            resolve(CPF.parse(reply.data));
        });
        socket.on("error", reject);
    });
}

// The library's own discovery: ListIdentity broadcast to 255.255.255.255.
function browse() {
    return new Promise((resolve) => {
        const browser = new Browser(51687, "0.0.0.0", true, 200);
        browser.on("New Device", (device) => {
            browser.stop();
            browser.socket.close();
            resolve(device);
        });
    });
}

async function main() {
    const found = await browse();
    check(found.productName === kProductName, "a broadcast ListIdentity finds the simulator");
    const identity = await udpListIdentity();
    check(identity.productName === kProductName, "UDP ListIdentity names the product");
    check(identity.socketAddress.sin_port === port, "ListIdentity reports the encapsulation port");
    check(identity.state === 3, "ListIdentity reports the operational state");

    const identityItems = await tcpList(commands.ListIdentity);
    check(identityItems.length === 1 && identityItems[0].TypeID === CPF.ItemIDs.ListIdentity,
          "TCP ListIdentity carries one identity item");
    const services = await tcpList(commands.ListServices);
    check(services.length === 1 && services[0].TypeID === CPF.ItemIDs.ListServices &&
          services[0].data.slice(4, 18).toString() === "Communications",
          "ListServices offers the communications service");
    check((await tcpList(commands.ListInterfaces)).length === 0, "ListInterfaces lists none");

    const plc = new Controller(true);
    await plc.connect(host, 0, false); // RegisterSession, Forward_Open
    check(plc.established_conn === true, "Forward_Open opened a connection");
    await plc.readControllerProps(); // Get_Attributes_All over the connection
    check(plc.properties.name === kProductName, "Get_Attributes_All gives the product name");
    check(plc.properties.version === "1.1", "Get_Attributes_All gives the revision");
    const name = await plc.getAttributeSingle(0x01, 0x01, 0x07);
    check(name.slice(1).toString() === kProductName, "Get_Attribute_Single gives attribute 7");
    await plc.disconnect(); // Forward_Close
    check(true, "Forward_Close answered");

    // Without a connection the library routes each request to the
    // controller's slot with Unconnected_Send.
    const unconnected = new Controller(false);
    await unconnected.connect(host, 0, false);
    await unconnected.readControllerProps();
    check(unconnected.properties.name === kProductName, "Get_Attributes_All through Unconnected_Send");
    await unconnected.disconnect();
}

const guard = setTimeout(() => {
    console.error("FAIL: no answer within 20 s");
    process.exit(1);
}, 20000);
main().then(() => {
    clearTimeout(guard);
    process.exit(0);
}, (error) => {
    console.error("FAIL: " + error.message);
    process.exit(1);
});
