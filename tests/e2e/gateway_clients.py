# gateway_clients.py cases|readonly|down PORT: pymodbus against the gateway (simulator console on fds 7, 8).
import logging
import os
import socket
import struct
import sys
import time

from pymodbus.client import ModbusTcpClient
from pymodbus.pdu import ExceptionResponse

logging.disable(logging.CRITICAL)
SIM_IN, SIM_OUT = os.fdopen(7, "w", buffering=1), os.fdopen(8, "r")
FAILED = []


def sim(command):
    SIM_IN.write(command + "\n")
    n = int(command.split(":")[1]) if command.startswith("get") and ":" in command else 1
    return [SIM_OUT.readline().split()[-1] for _ in range(n)]


def client(port):
    c = ModbusTcpClient("127.0.0.1", port=port, timeout=5, retries=0)
    assert c.connect(), "cannot connect to the gateway"
    return c


def outcome(r):
    """The values read, True for a write answered, or ('exception', code)."""
    if isinstance(r, ExceptionResponse):
        return ("exception", r.exception_code)
    if isinstance(r, Exception) or r.isError():
        return ("error", str(r))
    if hasattr(r, "registers"):
        return list(r.registers)
    return [int(b) for b in r.bits] if hasattr(r, "bits") else True


def check(what, got, want):
    if got != want:
        FAILED.append(f"{what}: got {got}, expected {want}")


def raw(port, *pdus):
    """Sends each PDU in an ADU of unit 1 on one connection; the PDUs of the answers."""
    with socket.create_connection(("127.0.0.1", port), timeout=5) as s:
        answers = []
        for tid, body in enumerate(pdus):
            s.sendall(struct.pack(">HHHB", tid + 1, 0, len(body) + 1, 1) + body)
            head = s.recv(7, socket.MSG_WAITALL)
            answers.append(s.recv(struct.unpack(">H", head[4:6])[0] - 1, socket.MSG_WAITALL))
        return answers


def until(read, want, seconds=10):
    end = time.time() + seconds
    while time.time() < end and outcome(read()) != want:
        time.sleep(0.05)
    check("polled", outcome(read()), want)


def cases(port):
    c = client(port)
    for command in ["set DM5 1234", "set TC3 100000", "set R0.03 1", "set T5 1", "set MR_bit10.02 1", "set DM200 7"]:
        check(command, sim(command), ["ok"])
    until(lambda: c.read_input_registers(10, 1, slave=1), [7])
    for what, r, want in [
        ("hr5", c.read_holding_registers(5, 1, slave=1), [1234]),
        ("ir0:2 (TC3, low word first)", c.read_input_registers(0, 2, slave=1), [34464, 1]),
        ("di100:4", c.read_discrete_inputs(100, 4, slave=1), [0, 0, 0, 1, 0, 0, 0, 0]),
        ("co100:2 (T4, T5)", c.read_coils(100, 2, slave=1), [0, 1, 0, 0, 0, 0, 0, 0]),
        ("co0:3", c.read_coils(0, 3, slave=1), [0, 0, 1, 0, 0, 0, 0, 0]),
    ]:
        check(what, outcome(r), want)
    for what, call, get, want in [  # the call, then the simulator's memory
        ("write hr10", lambda: c.write_register(10, 4321, slave=1), "get DM10", ["4321"]),
        ("write hr20:3", lambda: c.write_registers(20, [1, 2, 3], slave=1), "get DM20:3", ["1", "2", "3"]),
        ("write hr100:2 (Z0)", lambda: c.write_registers(100, [0x86A0, 1], slave=1), "get Z0", ["100000"]),
        ("write co5", lambda: c.write_coil(5, True, slave=1), "get MR_bit10.05", ["1"]),
        ("write co8:3", lambda: c.write_coils(8, [1, 0, 1], slave=1), "get MR_bit10.08:3", ["1", "0", "1"]),
    ]:
        check(what, outcome(call()), True)
        check(what + " in the simulator", sim(get), want)
    for what, call, code in [
        ("function 7", lambda: c.read_exception_status(slave=1), 1),
        ("function 22", lambda: c.mask_write_register(0, 0xFF, 0, unit=1), 1),
        ("function 23", lambda: c.readwrite_registers(read_address=0, read_count=1, write_address=0,
                                                      write_registers=[1], unit=1), 1),
        ("hr5000 unmapped", lambda: c.read_holding_registers(5000, 1, slave=1), 2),
        ("hr102:3 past Z1", lambda: c.read_holding_registers(102, 3, slave=1), 2),
        ("di99:2 before R0.00", lambda: c.read_discrete_inputs(99, 2, slave=1), 2),
        ("write co100 (T4, read-only)", lambda: c.write_coil(100, True, slave=1), 2),
        ("write hr100 (half of Z0)", lambda: c.write_register(100, 1, slave=1), 2),
        ("write hr101:2 (halves of Z0, Z1)", lambda: c.write_registers(101, [1, 2], slave=1), 2),
        ("write hr200 unmapped", lambda: c.write_register(200, 1, slave=1), 2),
        ("read hr0:126", lambda: c.read_holding_registers(0, 126, slave=1), 3),
        ("read co0:2001", lambda: c.read_coils(0, 2001, slave=1), 3),
        ("unit 2", lambda: c.read_holding_registers(5, 1, slave=2), 10),
    ]:
        check(what, outcome(call()), ("exception", code))
    check("refused writes changed nothing", sim("get Z0"), ["100000"])
    check("function 5 with 0x1234", raw(port, bytes([5, 0, 5, 0x12, 0x34])), [bytes([0x85, 3])])
    check("function 16, 2 registers in 3 bytes", raw(port, bytes([16, 0, 20, 0, 2, 3, 0, 1, 2])), [bytes([0x90, 3])])
    check("function 43 with data, then a read", raw(port, bytes([0x2B, 0x0E, 1, 0]), bytes([3, 0, 5, 0, 1])),
          [bytes([0xAB, 1]), bytes([3, 2, 0x04, 0xD2])])
    c.close()


def readonly(port):
    c = client(port)
    for function, call in [(5, lambda: c.write_coil(0, True, slave=1)), (6, lambda: c.write_register(0, 1, slave=1)),
                           (15, lambda: c.write_coils(0, [1], slave=1)),
                           (16, lambda: c.write_registers(0, [1], slave=1))]:
        check(f"function {function} without --allow-writes", outcome(call()), ("exception", 1))
    until(lambda: c.read_holding_registers(7, 1, slave=1), [4660])
    c.close()


def down(port):
    c = client(port)
    check("a read never answered by the controller", outcome(c.read_holding_registers(0, 1)), ("exception", 11))
    start = time.time()
    check("a write under drop=1", outcome(c.write_register(0, 1)), ("exception", 4))
    print(f"exception 4 after {time.time() - start:.2f} s")
    c.close()


if __name__ == "__main__":
    mode, port = sys.argv[1], int(sys.argv[2])
    {"cases": cases, "readonly": readonly, "down": down}[mode](port)
    for f in FAILED:
        print("FAIL:", f, file=sys.stderr)
    sys.exit(1 if FAILED else 0)
