-- Adds framed datagrams and lateral headers to Wireshark's packet tree. vesk.lua declares the fields that
-- are filled here.

--- `declared` contains the protocols `vesk` and `lateral`, their `fields` and `lateral_fields`, and
--- `experts` by name; `framing` is vesk_framing.lua; `hmac` is the function of vesk_hmac.lua.
return function(declared, framing, hmac)
    local f, lf, experts = declared.fields, declared.lateral_fields, declared.experts
    local data = Dissector.get("data")

    -- A field that was not captured completely is omitted.
    local function add_field(tree, field, tvb, offset, length)
        if length > 0 and offset + length <= tvb:len() then
            return tree:add(field, tvb(offset, length))
        end
    end

    local function add_header(tree, tvb, version)
        local layout = framing.layouts[version]
        local item = add_field(tree, f.hmac, tvb, 0, layout.hmac_length)
        if version == 1 then
            add_field(tree, f.header_length, tvb, layout.hmac_length, 2)
        end
        add_field(tree, f.label, tvb, layout.label_offset, 4)
        return item
    end

    local function add_status(item, status, has_key)
        item:add(f.status, status):set_generated()
        item:append_text(" [" .. status .. "]")
        local despite = status == "unsigned" and has_key
        item:add_proto_expert_info(experts[despite and "unsigned despite key" or status])
    end

    local function add_payload(tree, tvb, length, offset, pinfo, root)
        tree:add(f.payload_length, length - offset):set_generated()
        if tvb:len() > offset then
            tree:add(f.payload, tvb(offset))
            data:call(tvb(offset):tvb(), pinfo, root)
        end
    end

    -- Adds the fields after the label of a datagram that the forwarder accepts; returns a summary.
    local function add_accepted(tree, item, tvb, length, version, offset, find_keys)
        local layout = framing.layouts[version]
        local label = framing.number(tvb:raw(), layout.label_offset, 4)
        local keys = find_keys(label)
        local status = framing.hmac_status(version, tvb:raw(), length, keys, hmac)
        add_status(item, status, #keys > 0)
        add_field(tree, f.further, tvb, layout.header_size, offset - layout.header_size)
        if length > framing.LONGEST then
            tree:add_proto_expert_info(experts["too long"])
        end
        local summary = ("label 0x%x, HMAC %s, %d bytes"):format(label, status, length - offset)
        tree:append_text(", " .. summary)
        return summary
    end

    --- Adds a framed datagram of `length` bytes, of which `tvb` has at least one, and returns the text of
    --- the Info column. `version` is nil if it has to be detected; `direction` is nil if it is not known;
    --- `find_keys` returns the keys of a label.
    local function add_framed(tvb, length, pinfo, root, version, direction, find_keys)
        local bytes, guessed = tvb:raw(), false
        if not version then
            version, guessed = framing.likely_version(bytes, length, find_keys, hmac)
        end
        local tree = root:add(declared.vesk, tvb())
        tree:add(f.framing, version):set_generated()
        if direction then
            tree:add(f.direction, direction):set_generated()
        end
        if guessed then
            tree:add_proto_expert_info(experts.guessed)
        end
        local item = add_header(tree, tvb, version)
        local offset, refusal = framing.payload_offset(version, bytes, length)
        if not offset then
            tree:add_proto_expert_info(experts.refused, refusal)
            return ("not %s: %s"):format(framing.layouts[version].name, refusal)
        end
        local summary = add_accepted(tree, item, tvb, length, version, offset, find_keys)
        add_payload(tree, tvb, length, offset, pinfo, root)
        return summary
    end

    -- Adds the peer's address and returns it as text.
    local function add_peer(tree, tvb, header_size)
        local offset = framing.LATERAL_ADDRESS_OFFSET
        local length = header_size - offset - framing.LATERAL_HMAC_LENGTH
        local item = tree:add(lf.sockaddr, tvb(offset, length))
        local family, little_endian = framing.lateral_family(tvb:raw(), header_size)
        if not family then
            item:add_proto_expert_info(experts.address)
            return "an unknown address"
        end
        item:add(lf.port, tvb(offset + 2, 2))
        local port = tvb(offset + 2, 2):uint()
        if family == 4 then
            item:add(lf.address, tvb(offset + 4, 4))
            return ("%s:%d"):format(tostring(tvb(offset + 4, 4):ipv4()), port)
        end
        item:add(lf.address6, tvb(offset + 8, 16))
        local add = little_endian and item.add_le or item.add
        add(item, lf.scope, tvb(offset + 24, 4))
        return ("[%s]:%d"):format(tostring(tvb(offset + 8, 16):ipv6()), port)
    end

    --- Adds a lateral header of a datagram of `length` bytes, of which `tvb` has at least one. Returns
    --- the header's size, or nil, and the text of the Info column.
    local function add_lateral(tvb, length, root)
        local tree = root:add(declared.lateral, tvb())
        add_field(tree, lf.kind, tvb, 0, 1)
        add_field(tree, lf.length, tvb, 1, 1)
        local size, refusal = framing.lateral_header_size(tvb:raw(), length)
        if not size then
            tree:add_proto_expert_info(experts.refused, refusal)
            return nil, "not a lateral datagram: " .. refusal
        end
        tree:set_len(size)
        local peer = add_peer(tree, tvb, size)
        local hmac_length = framing.LATERAL_HMAC_LENGTH
        add_field(tree, lf.hmac, tvb, size - hmac_length, hmac_length)
        local forwarded = tvb(0, 1):uint() == framing.FORWARDED
        local summary = (forwarded and "forwarded for " or "returned for ") .. peer
        tree:append_text(", " .. summary)
        return size, summary
    end

    return {add_framed = add_framed, add_lateral = add_lateral}
end
