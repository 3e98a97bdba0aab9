-- Brightmix mutes the multi-output sink while it routes. WirePlumber would otherwise save
-- that mute (under a key every combine sink shares) and bring the sink back silent after a
-- restart. The node property of the same name is not honoured by this WirePlumber, so the
-- rule has to live here.
table.insert(stream_defaults.rules, {
  matches = { { { "node.name", "equals", "multi_output" } } },
  apply_properties = { ["state.restore-props"] = false },
})
