// SPDX-License-Identifier: Apache-2.0
// The functions of libbabeltrace2-ctf-writer that the trace verb calls. Debian's libbabeltrace2-dev has the
// library and its pkg-config file but not its headers, so the prototypes stand here; they are part of the
// library's stable interface (libbabeltrace2-ctf-writer.so.0).
//
// Ownership: what a create function returns is released with bt_ctf_object_put_ref, and so is what
//   get_payload returns.
// Errors: null or a negative number.
#pragma once

#include <cstdint>

extern "C" {
struct bt_ctf_clock;
struct bt_ctf_event;
struct bt_ctf_event_class;
struct bt_ctf_field;
struct bt_ctf_field_type;
struct bt_ctf_stream;
struct bt_ctf_stream_class;
struct bt_ctf_writer;

void bt_ctf_object_put_ref(void const* object);

bt_ctf_writer* bt_ctf_writer_create(char const* path);
int bt_ctf_writer_add_clock(bt_ctf_writer* writer, bt_ctf_clock* clock);
bt_ctf_stream* bt_ctf_writer_create_stream(bt_ctf_writer* writer, bt_ctf_stream_class* streamClass);
void bt_ctf_writer_flush_metadata(bt_ctf_writer* writer);

bt_ctf_clock* bt_ctf_clock_create(char const* name);
int bt_ctf_clock_set_time(bt_ctf_clock* clock, std::int64_t ns);

bt_ctf_stream_class* bt_ctf_stream_class_create(char const* name);
int bt_ctf_stream_class_set_clock(bt_ctf_stream_class* streamClass, bt_ctf_clock* clock);
int bt_ctf_stream_class_add_event_class(bt_ctf_stream_class* streamClass, bt_ctf_event_class* eventClass);
int bt_ctf_stream_append_event(bt_ctf_stream* stream, bt_ctf_event* event);
int bt_ctf_stream_flush(bt_ctf_stream* stream);

bt_ctf_event_class* bt_ctf_event_class_create(char const* name);
int bt_ctf_event_class_add_field(bt_ctf_event_class* eventClass, bt_ctf_field_type* type, char const* name);
bt_ctf_event* bt_ctf_event_create(bt_ctf_event_class* eventClass);
bt_ctf_field* bt_ctf_event_get_payload(bt_ctf_event* event, char const* name);

bt_ctf_field_type* bt_ctf_field_type_integer_create(unsigned bits);
bt_ctf_field_type* bt_ctf_field_type_string_create(void);
int bt_ctf_field_integer_unsigned_set_value(bt_ctf_field* field, std::uint64_t value);
int bt_ctf_field_string_set_value(bt_ctf_field* field, char const* value);
}
