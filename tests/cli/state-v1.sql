-- A file of the state as version 1 of it was written: a relay on air, a file that waits, a message with 4 of 5 repeats left.
PRAGMA foreign_keys=OFF;
BEGIN TRANSACTION;
CREATE TABLE request(
        id INTEGER PRIMARY KEY AUTOINCREMENT, -- in the order of filing
        number INTEGER UNIQUE,                -- in the service that runs; NULL: not filed again yet
        is_cast INTEGER NOT NULL,
        on_air INTEGER NOT NULL DEFAULT 0,
        command INTEGER NOT NULL, epg INTEGER NOT NULL,
        created INTEGER NOT NULL, start INTEGER NOT NULL, end INTEGER NOT NULL,
        -- a cast
        type INTEGER, format INTEGER, source, source_port INTEGER, destination, destination_port INTEGER,
        file, stream_id INTEGER, encryption INTEGER, key, split INTEGER,
        -- a message
        priority INTEGER, repeats INTEGER, repeats_left INTEGER, attribute1 INTEGER, attribute3 INTEGER, text);
INSERT INTO request VALUES(1,1,1,1,1,7,1789999990,1789999990,1790003600,2,8225,'239.0.0.1',4000,'239.1.2.3',5000,NULL,3,2,X'0100ff',1,NULL,0,NULL,NULL,NULL,NULL);
INSERT INTO request VALUES(2,2,0,0,262176,8,1789999995,1789999995,1790000600,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,1,5,4,32,33,'Fire "drill"');
INSERT INTO request VALUES(3,3,1,0,1,9,1789999990,1789999990,1790003600,1,8225,NULL,0,'239.1.2.3',5000,'/srv/film.ts',3,0,NULL,0,NULL,0,NULL,NULL,NULL,NULL);
CREATE TABLE history(
        id INTEGER PRIMARY KEY AUTOINCREMENT,
        request INTEGER NOT NULL,  -- its id in the table request, as long as it lives
        kind NOT NULL, epg INTEGER NOT NULL, identity NOT NULL,
        started INTEGER,           -- milliseconds since the epoch; NULL: never on air
        noted INTEGER,             -- when its traffic was last written down
        ended INTEGER,             -- NULL: still on air, or a message that lives
        event, reason, other,
        -- a cast
        source, destination, file,
        datagrams INTEGER, bytes INTEGER, failed INTEGER DEFAULT 0, dropped INTEGER, silence INTEGER, late INTEGER,
        -- a message
        text, broadcasts INTEGER);
INSERT INTO history VALUES(1,2,'message',8,'8:1789999995:1789999995:1790000600:priority',1790000003250,1790000003250,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,NULL,0,NULL,NULL,NULL,'Fire "drill"',1);
INSERT INTO history VALUES(2,1,'relay',7,'7:2:1789999990:1790003600:5000:0x2021',1790000005250,NULL,NULL,NULL,NULL,NULL,'239.0.0.1:4000','239.1.2.3:5000',NULL,NULL,NULL,0,NULL,NULL,NULL,NULL,NULL);
DELETE FROM sqlite_sequence;
INSERT INTO sqlite_sequence VALUES('request',3);
INSERT INTO sqlite_sequence VALUES('history',2);
CREATE INDEX request_identity ON request(epg, created, start, end);
CREATE INDEX history_ended ON history(ended);
CREATE INDEX history_epg ON history(epg);
CREATE INDEX history_open ON history(request) WHERE ended IS NULL;
COMMIT;
PRAGMA user_version = 1;
