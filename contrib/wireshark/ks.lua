-- SPDX-FileCopyrightText: 2026 The ks developers
-- SPDX-License-Identifier: Apache-2.0

-- ks.lua: shows what `ksctl capture` has recorded, in Wireshark and tshark.
--
--   tshark -X lua_script:ks.lua -r FILE -V
--   wireshark -X lua_script:ks.lua FILE          (or put this file into Wireshark's folder of plugins)
--
-- docs/wire.md describes the messages, docs/troubleshooting.md the head in front of each. What was struck out when it
-- was recorded consists of asterisks, and is shown as that.

local ks = Proto("ks", "Keystore")

local DIRECTIONS = { [0] = "request", [1] = "reply" }

local RESULTS = {
  [0] = "KS_NOT_REGISTERED", [1] = "KS_SUCCESS", [2] = "KS_FAILURE", [3] = "KS_INVALID_ARGS", [4] = "KS_NO_MEMORY",
  [5] = "KS_NOT_FOUND", [6] = "KS_NO_MORE_ENTRIES", [7] = "KS_STORE_FULL", [8] = "KS_TIMEOUT", [9] = "KS_BAD_KEY",
  [10] = "KS_CRYPT_ERROR", [11] = "KS_KEY_LEN_UNSUPPORTED", [12] = "KS_FW_COMM_ERROR",
  [13] = "KS_FW_COMPACT_CORRUPT", [14] = "KS_FW_BAD_CELL", [21] = "KS_FW_PANIC", [22] = "KS_BAD_FRAGMENT_SIZE",
  [23] = "KS_BAD_RESPONSE_FORMAT", [24] = "KS_VERSION_MISMATCH", [25] = "KS_RPC_TOO_LARGE", [26] = "KS_RPC_ERROR",
  [27] = "KS_FRAGMENT_UNSUPPORTED",
}

-- A section of a request: what it is, where its length stands in the descriptor and how wide, and its offset likewise.
local NAME = { "name", 0, 1, 1, 1 }
local NAME_AT_2 = { "name", 2, 1, 3, 1 }
local NAME_AND_DATA = { size = 6, NAME, { "data", 2, 2, 4, 2 } }
local NAME_AND_WIDE_DATA = { size = 8, NAME, { "data", 2, 2, 4, 4 } }
local NAME_IV_DATA = { size = 12, NAME, { "iv", 2, 1, 4, 2 }, { "data", 6, 2, 8, 4 } }
local NAME_ONLY = { size = 2, NAME }
local TWO_PIECES = { size = 10, NAME, { "data", 2, 2, 4, 2 }, { "data", 6, 2, 8, 2 } }
local NT_RESPONSE = {
  size = 28, numbers = { { "wanted", 0, 2 } }, NAME_AT_2, { "challenge", 4, 1, 8, 4 }, { "challenge", 12, 1, 16, 4 },
  { "user", 20, 1, 24, 4 },
}

-- The catalogue: name, request, and what stands behind a reply's result: "data", "name", "flag", "hello" and so on, or
-- nothing.
local MESSAGES = {
  [1] = { "hello", { size = 0 }, "hello" },
  [2] = { "status", { size = 0 }, "status" },
  [64] = { "channel", { size = 4, numbers = { { "step", 0, 4 } } }, "channel" },
  [66561] = { "generate random", { size = 8, numbers = { { "wanted", 0, 1 }, { "word", 4, 4 } } }, "data" },
  [66562] = { "store secret",
    { size = 12, NAME, { "linked_name", 2, 1, 3, 1 }, { "secret", 4, 2, 6, 2 }, { "metadata", 8, 2, 10, 2 } } },
  [66563] = { "add metadata", { size = 6, NAME, { "metadata", 2, 2, 4, 2 } } },
  [66564] = { "clear", NAME_ONLY, "data" },
  [66565] = { "secret exists", NAME_ONLY, "flag" },
  [66566] = { "name by index", { size = 2, numbers = { { "position", 0, 2 } } }, "name" },
  [66567] = { "return metadata", NAME_ONLY, "metadata" },
  [66568] = { "rename", { size = 6, NAME, { "new_name", 2, 1, 3, 1 }, { "linked_name", 4, 1, 5, 1 } } },
  [66569] = { "store PAC", { size = 20, NAME, { "secret", 4, 4, 8, 4 }, { "metadata", 12, 4, 16, 4 } } },
  [66570] = { "PAC exists", NAME_ONLY, "flag" },
  [66571] = { "PAC key T-PRF", { size = 20, numbers = { { "wanted", 0, 2 } }, NAME_AT_2, { "label", 4, 2, 8, 4 },
    { "random", 12, 2, 16, 4 } }, "data" },
  [66572] = { "generate NT response", NT_RESPONSE, "data" },
  [66573] = { "generate authenticator response", { size = 36, numbers = NT_RESPONSE.numbers, NT_RESPONSE[1],
    NT_RESPONSE[2], NT_RESPONSE[3], NT_RESPONSE[4], { "response", 28, 1, 32, 4 } }, "data" },
  [66574] = { "new password encrypted", { size = 8, NAME, { "secret", 2, 1, 4, 4 } }, "data" },
  [66575] = { "old hash encrypted", { size = 8, NAME, { "old_name", 2, 1, 4, 4 } }, "data" },
  [66576] = { "get master key", { size = 6, NAME, { "response", 2, 1, 4, 2 } }, "data" },
  [66577] = { "AES encrypt", NAME_AND_WIDE_DATA, "data" },
  [66578] = { "AES decrypt", NAME_AND_WIDE_DATA, "data" },
  [66579] = { "AES CBC encrypt", NAME_IV_DATA, "data" },
  [66580] = { "AES CBC decrypt", NAME_IV_DATA, "data" },
  [66581] = { "HMAC-MD5", NAME_AND_DATA, "data" },
  [66582] = { "HMAC-SHA1", NAME_AND_DATA, "data" },
  [66583] = { "MD5", TWO_PIECES, "data" },
  [66584] = { "SHA-1", TWO_PIECES, "data" },
  [66585] = { "DES encrypt", NAME_AND_DATA, "data" },
  [66586] = { "DES decrypt", NAME_AND_DATA, "data" },
  [66587] = { "3DES encrypt", NAME_AND_DATA, "data" },
  [66588] = { "3DES decrypt", NAME_AND_DATA, "data" },
  [66593] = { "firmware version and status", { size = 0 }, "firmware" },
  [66594] = { "compact memory", { size = 0 } },
}

-- Of the status: its flags, each with its bit, and the texts at its end, in their order.
local STATUS_FLAGS = {
  { "memory_unlocked", "Keys in memory that could be swapped", 1 }, { "nearly_full", "Over 90 % full", 2 },
  { "compaction_helps", "Compaction would help", 4 }, { "changes_refused", "Changes are refused", 8 },
  { "until_restart", "Until a restart", 16 }, { "reserve_given_up", "The reserve is given up", 32 },
  { "restart_needed", "A restart is needed for part of the configuration", 64 },
  { "shared", "The entries are those of a fleet", 128 },
}
local STATUS_TEXTS = { "vault", "configuration", "refusal", "problem" }

local MESSAGE_NAMES = {}
for opcode, message in pairs(MESSAGES) do MESSAGE_NAMES[opcode] = message[1] end

local f = {
  direction = ProtoField.uint8("ks.direction", "Direction", base.DEC, DIRECTIONS),
  pid = ProtoField.uint32("ks.pid", "Process"),
  connection = ProtoField.uint32("ks.connection", "Connection"),
  size = ProtoField.uint32("ks.size", "Size"),
  magic = ProtoField.string("ks.magic", "Magic"),
  version = ProtoField.uint16("ks.version", "Version"),
  descriptor_size = ProtoField.uint16("ks.descriptor_size", "Size of the descriptor"),
  opcode = ProtoField.uint32("ks.opcode", "Message", base.DEC, MESSAGE_NAMES),
  token = ProtoField.uint32("ks.token", "Token", base.HEX),
  node = ProtoField.uint32("ks.node", "Node", base.HEX),
  sap = ProtoField.uint32("ks.sap", "Service access point"),
  application = ProtoField.uint32("ks.application", "Application", base.HEX),
  payload_size = ProtoField.uint32("ks.payload_size", "Size of the payload"),
  result = ProtoField.uint32("ks.result", "Result", base.DEC, RESULTS),
  data_size = ProtoField.uint16("ks.data_size", "Size of the data"),
  vdc = ProtoField.uint16("ks.vdc", "VDC"),
  kind = ProtoField.string("ks.kind", "Kind"),
  flag = ProtoField.bool("ks.exists", "It exists"),
  wanted = ProtoField.uint32("ks.wanted", "Bytes wanted"),
  word = ProtoField.uint32("ks.word", "Request word", base.HEX),
  position = ProtoField.uint16("ks.position", "Position"),
  receive_limit = ProtoField.uint32("ks.receive_limit_ms", "Waits for a reply, ms"),
  offers = ProtoField.uint16("ks.offers", "Offers", base.HEX),
  step = ProtoField.uint32("ks.channel_step", "Step towards a channel"),
  channel_size = ProtoField.uint32("ks.channel_size", "Size of the channel"),
  service_version = ProtoField.uint32("ks.service_version", "Version of the service", base.HEX),
  cfg_uri = ProtoField.string("ks.running_cfg_uri", "Databases below"),
  service_pid = ProtoField.uint32("ks.service_pid", "Process of the service"),
  started_at = ProtoField.uint64("ks.started_at", "Started at, s since 1970"),
  connections = ProtoField.uint32("ks.connections", "Connections"),
  connection_limit = ProtoField.uint32("ks.connection_limit", "Limit of connections"),
  users = ProtoField.uint32("ks.users", "Users"),
  entries = ProtoField.uint64("ks.entries", "Entries"),
  entry_limit = ProtoField.uint64("ks.entry_limit", "Limit of entries"),
  flags = ProtoField.uint32("ks.flags", "Flags", base.HEX),
  sup_state = ProtoField.uint32("ks.sup_state", "Sup state"),
  up = ProtoField.uint64("ks.up_ms", "Runs for, ms"),
  bytes = ProtoField.uint64("ks.bytes", "Bytes of secrets and metadata"),
  byte_limit = ProtoField.uint64("ks.byte_limit", "Limit of bytes"),
  vault_size = ProtoField.uint64("ks.vault_size", "Size of the vault's file"),
  log_size = ProtoField.uint64("ks.log_size", "Size of its log"),
  problem_count = ProtoField.uint32("ks.problem_count", "Problems of the last reload"),
  config_loaded_at = ProtoField.uint64("ks.config_loaded_at", "Configuration loaded at, s since 1970"),
  reload_failed_at = ProtoField.uint64("ks.reload_failed_at", "Reload failed at, s since 1970"),
  firmware = ProtoField.uint16("ks.firmware_version", "Version", base.HEX),
  status = ProtoField.uint8("ks.firmware_status", "Status", base.HEX),
  struck = ProtoField.bytes("ks.struck_out", "Struck out"),
}
for _, what in ipairs({ "name", "new_name", "old_name", "linked_name", "user", "label" }) do
  f[what] = ProtoField.string("ks." .. what, (what:gsub("^%l", string.upper):gsub("_", " ")))
end
for _, what in ipairs({ "data", "secret", "metadata", "iv", "random", "challenge", "response", "rest" }) do
  f[what] = ProtoField.bytes("ks." .. what, (what:gsub("^%l", string.upper)))
end
for _, flag in ipairs(STATUS_FLAGS) do
  f[flag[1]] = ProtoField.bool("ks." .. flag[1], flag[2], 32, nil, flag[3])
end
for _, what in ipairs(STATUS_TEXTS) do f[what] = ProtoField.string("ks." .. what, (what:gsub("^%l", string.upper))) end
ks.fields = f

local wrong = ProtoExpert.new("ks.wrong", "Not as the protocol has it", expert.group.MALFORMED, expert.severity.ERROR)
ks.experts = { wrong }

local WIRE_NAMES = { name = true, new_name = true, old_name = true, linked_name = true }

local function is_struck(range)
  return range:len() > 0 and not range:bytes():raw():find("[^%*]")
end

-- The part of a payload that a section's length and offset tell of, or nothing when it doesn't lie behind the
-- descriptor.
local function section_of(payload, size, section)
  local length = payload(section[2], section[3]):le_uint()
  local offset = payload(section[4], section[5]):le_uint()
  if length == 0 then return nil, true end
  if offset < size or offset + length > payload:len() then return nil, false end
  return payload(offset, length), true
end

local function add_name(tree, what, range)
  if range:len() == 1 then return tree:add(f[what], range, "(only its tag)") end
  local part = tree:add(f[what], range, range:len() > 4 and range(4):string() or "")
  if range:len() < 5 then return end
  local tag = range(0, 1):uint()
  part:add(f.kind, range(0, 1), tag == 0x30 and "secret" or tag == 0x31 and "PAC" or "unknown")
  part:add(f.vdc, range(2, 2))
  return part
end

local function add_part(tree, what, range)
  if is_struck(range) then
    return tree:add(f.struck, range):append_text(" (" .. what:gsub("_", " ") .. ", " .. range:len() .. " bytes)")
  end
  if WIRE_NAMES[what] then return add_name(tree, what, range) end
  if what == "user" or what == "label" then return tree:add(f[what], range, range:string()) end
  return tree:add(f[what], range)
end

local function show_request(tree, payload, header_descriptor_size, layout)
  if header_descriptor_size ~= layout.size or (payload and payload:len() or 0) < layout.size then
    tree:add_proto_expert_info(wrong, "the descriptor hasn't the size of its record")
    return ""
  end
  if payload == nil then return "" end
  for _, number in ipairs(layout.numbers or {}) do tree:add_le(f[number[1]], payload(number[2], number[3])) end
  local first_name = ""
  for _, section in ipairs(layout) do
    local range, good = section_of(payload, layout.size, section)
    if range then
      add_part(tree, section[1], range)
      if section[1] == "name" and range:len() > 4 and not is_struck(range) then first_name = range(4):string() end
    elseif not good then
      tree:add_proto_expert_info(wrong, "the " .. section[1] .. " doesn't lie behind the descriptor")
    end
  end
  return first_name
end

local REPLIES = {
  hello = function(tree, payload)
    if payload:len() < 240 then return end
    tree:add_le(f.vdc, payload(4, 4))
    tree:add_le(f.receive_limit, payload(8, 4))
    tree:add_le(f.service_version, payload(12, 2))
    tree:add_le(f.offers, payload(14, 2))
    tree:add(f.cfg_uri, payload(16, 224), payload(16, 224):stringz())
  end,
  channel = function(tree, payload)
    if payload:len() < 8 then return end
    tree:add_le(f.channel_size, payload(4, 4))
  end,
  status = function(tree, payload)
    if payload:len() < 1144 then return end
    tree:add_le(f.service_pid, payload(4, 4))
    tree:add_le(f.started_at, payload(8, 8))
    tree:add_le(f.service_version, payload(16, 4))
    tree:add_le(f.connections, payload(20, 4))
    tree:add_le(f.connection_limit, payload(24, 4))
    tree:add_le(f.users, payload(28, 4))
    tree:add_le(f.entries, payload(32, 8))
    tree:add_le(f.entry_limit, payload(40, 8))
    local flags = tree:add_le(f.flags, payload(48, 4))
    for _, flag in ipairs(STATUS_FLAGS) do flags:add_le(f[flag[1]], payload(48, 4)) end
    tree:add_le(f.sup_state, payload(52, 4))
    tree:add_le(f.up, payload(56, 8))
    tree:add_le(f.bytes, payload(64, 8))
    tree:add_le(f.byte_limit, payload(72, 8))
    tree:add_le(f.vault_size, payload(80, 8))
    tree:add_le(f.log_size, payload(88, 8))
    tree:add_le(f.receive_limit, payload(96, 4))
    tree:add_le(f.problem_count, payload(100, 4))
    tree:add_le(f.config_loaded_at, payload(104, 8))
    tree:add_le(f.reload_failed_at, payload(112, 8))
    for i, text in ipairs(STATUS_TEXTS) do
      local range = payload(120 + 256 * (i - 1), 256)
      tree:add(f[text], range, range:stringz())
    end
  end,
}

-- What stands behind result and length.
local DATA = {
  flag = function(tree, data) tree:add(f.flag, data(0, 1)) end,
  firmware = function(tree, data)
    if data:len() < 3 then return end
    tree:add_le(f.firmware, data(0, 2))
    tree:add(f.status, data(2, 1))
  end,
}

local function show_reply(tree, payload, kind)
  if payload == nil or payload:len() < 4 then
    tree:add_proto_expert_info(wrong, "the reply has no result")
    return ""
  end
  if is_struck(payload) then
    add_part(tree, "rest", payload)
    return ""
  end
  tree:add_le(f.result, payload(0, 4))
  local result = payload(0, 4):le_uint()
  if kind and REPLIES[kind] then
    REPLIES[kind](tree, payload)
  elseif kind and payload:len() >= 6 then
    local length = payload(4, 2):le_uint()
    tree:add_le(f.data_size, payload(4, 2))
    if 6 + length > payload:len() then
      tree:add_proto_expert_info(wrong, "the reply's data is longer than the reply")
    elseif length > 0 then
      local data = payload(6, length)
      if DATA[kind] and not is_struck(data) then DATA[kind](tree, data) else add_part(tree, DATA[kind] and "data" or kind, data) end
    end
  end
  return RESULTS[result] or tostring(result)
end

local HEAD = 16
local HEADER = 32

function ks.dissector(buffer, pinfo, root)
  pinfo.cols.protocol = "KS"
  local tree = root:add(ks, buffer())
  if buffer:len() < HEAD or buffer(0, 1):uint() ~= 1 then
    tree:add_proto_expert_info(wrong, "the capture's own head is of another version")
    return
  end
  local direction = buffer(1, 1):uint()
  tree:add(f.direction, buffer(1, 1))
  tree:add_le(f.pid, buffer(4, 4))
  tree:add_le(f.connection, buffer(8, 4))
  tree:add_le(f.size, buffer(12, 4))
  local process, service = "process " .. buffer(4, 4):le_uint() .. "/" .. buffer(8, 4):le_uint(), "service"
  pinfo.cols.src = direction == 0 and process or service
  pinfo.cols.dst = direction == 0 and service or process

  local datagram = buffer(HEAD)
  if datagram:len() < HEADER or is_struck(datagram(0, 4)) then
    tree:add_proto_expert_info(wrong, "the datagram is no message")
    pinfo.cols.info = "no message"
    return
  end
  tree:add(f.magic, datagram(0, 4), datagram(0, 4):string())
  tree:add_le(f.version, datagram(4, 2))
  tree:add_le(f.descriptor_size, datagram(6, 2))
  tree:add_le(f.opcode, datagram(8, 4))
  tree:add_le(f.token, datagram(12, 4))
  tree:add_le(f.node, datagram(16, 4))
  tree:add_le(f.sap, datagram(20, 4))
  tree:add_le(f.application, datagram(24, 4))
  tree:add_le(f.payload_size, datagram(28, 4))
  local opcode = datagram(8, 4):le_uint()
  local message = MESSAGES[opcode]
  local payload = datagram:len() > HEADER and datagram(HEADER) or nil
  if datagram(28, 4):le_uint() ~= datagram:len() - HEADER then
    tree:add_proto_expert_info(wrong, "the payload hasn't the size that the header tells")
  end
  local what = ""
  if message == nil then
    if payload then add_part(tree, "rest", payload) end
    what = "message " .. opcode
  elseif direction == 0 then
    local name = show_request(tree, payload, datagram(6, 2):le_uint(), message[2])
    what = message[1] .. (name ~= "" and " " .. name or "")
  else
    what = message[1] .. ": " .. show_reply(tree, payload, message[3])
  end
  pinfo.cols.info = (direction == 0 and "> " or "< ") .. what
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, ks)
