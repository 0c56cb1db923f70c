meta:
  id: kelta_eventlog
  title: Event log file of a blade
  endian: be
  license: Apache-2.0
doc: |
  The ring of records that the event manager keeps in nvramDirectory + "/kelta_eventlog"; an alternate
  event log file is one `record`. ../formats.md is the description in words.

  What stands between two records is shown as a `gap`. Checksums are not computed here, so in a gap a
  left-over header may be taken for a record; `evctl file verify` computes them.
seq:
  - id: ring
    type: ring
    size: '_io.size < 1600000 ? _io.size : 1600000'
    doc: What a longer file has behind these bytes is ignored.
types:
  ring:
    seq:
      - id: entries
        type: entry
        repeat: eos
  entry:
    seq:
      - id: record
        type: record
        if: is_record
      - id: gap
        type: gap
        if: not is_record
    instances:
      ahead:
        pos: _io.pos
        type: record_start
        if: _io.size - _io.pos >= 160
      is_record:
        value: _io.size - _io.pos >= 160 and ahead.is_plausible
  gap:
    doc: Bytes up to the next record or the end, what is left of overwritten records.
    seq:
      - id: bytes
        type: gap_byte
        repeat: until
        repeat-until: _io.eof or _.is_before_record
  gap_byte:
    seq:
      - id: value
        type: u1
    instances:
      ahead:
        pos: _io.pos
        type: record_start
        if: _io.size - _io.pos >= 160
      is_before_record:
        value: _io.size - _io.pos >= 160 and ahead.is_plausible
  record_start:
    doc: What tells a record from other bytes, without its checksum.
    seq:
      - id: signature
        type: u2
      - id: version
        type: u1
      - id: unchecked
        size: 149
      - id: len_data
        type: u2
      - id: source
        type: u1
      - id: unchecked_too
        size: 3
      - id: id
        type: u2
    instances:
      is_dummy_to_end:
        value: source == 27 and id == 1 and len_data == 65535
      is_plausible:
        value: signature == 0xb68f and version <= 1 and source <= 34 and (is_dummy_to_end or 160 + len_data <= _io.size - _io.pos)
        doc: Read before anything moves the position, which is that of the record.
  record:
    seq:
      - id: signature
        contents: [0xb6, 0x8f]
      - id: version
        type: u1
      - id: reserved
        type: u1
      - id: crc_checksum
        type: u4
        doc: CRC-32C of the rest, or of the rest of the header for a dummy, its four bytes reversed.
      - id: enclosure_id
        type: strz
        size: 64
        encoding: UTF-8
      - id: blade_id
        type: strz
        size: 64
        encoding: UTF-8
      - id: slot_id
        type: u4
      - id: instance_number
        type: u4
      - id: sequence_id
        type: u4
      - id: time
        type: u4
        doc: Seconds since 1970-01-01 UTC.
      - id: len_data
        type: u2
      - id: source
        type: u1
        enum: endpoint
      - id: event_type
        type: u1
        enum: event_type
      - id: category
        type: u1
        enum: category
      - id: id_version
        type: u1
      - id: id
        type: u2
      - id: data
        size: len_data
        if: not is_dummy
      - id: unused
        size: len_data
        if: is_dummy and len_data != 65535
      - id: unused_to_end
        size-eos: true
        if: is_dummy and len_data == 65535
    instances:
      is_dummy:
        value: source == endpoint::eventlog and id == 1
enums:
  endpoint:
    0: iscsi18p
    1: iscsi28p
    2: scsi8p
    3: cache18p
    4: cache28p
    5: iomgr8p
    6: sata8p
    7: mip8p
    8: pieman8p
    9: awr8p
    10: vpi8p
    11: mip_local_8p
    12: ichar
    13: ob0
    14: ob1
    15: hacc
    16: msm
    17: rcp
    18: startup
    19: ddlm
    20: volmgr
    21: drivead
    22: iscsi
    23: system_config
    24: network_config
    25: aim
    26: environ
    27: eventlog
    28: snmp
    29: smis
    30: smi_ind
    31: isnsc
    32: battery_manager
    33: es_adapter
  event_type:
    1: information
    2: warning
    3: error
  category:
    1: system
    2: management
    3: environmental
    4: disk
    5: volume
    6: sata
    7: scsi
    8: iscsi
    9: network
    10: hardware
    11: io
    12: cache
    13: isnsc
