-- SPDX-License-Identifier: Apache-2.0
CREATE TABLE events (
    message uuid,           -- the Idempotency-Key of the post
    position bigint,        -- of the event in it, from 1
    client text,            -- clientId: the device, or the client on it
    posted timestamptz,     -- the same in each attempt of the device
    event jsonb,
    PRIMARY KEY (message, position)
);
-- Messages that are no JSON, or no message.
CREATE TABLE unreadable (message uuid PRIMARY KEY, body bytea);
