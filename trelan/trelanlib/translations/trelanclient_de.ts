<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>QObject</name>
    <message>
        <source>Incorret request size</source>
        <translation>Falsche Größe der Anfrage</translation>
    </message>
    <message>
        <source>Incorrect request data</source>
        <translation>Falsche Daten in der Anfrage</translation>
    </message>
    <message>
        <source>Invalid data storage</source>
        <translation>Ungültiger Datenspeicher</translation>
    </message>
    <message>
        <source>Storage access error</source>
        <translation>Fehler beim Zugriff auf den Datenspeicher</translation>
    </message>
    <message>
        <source>Unregisterd client</source>
        <translation>Client nicht angemeldet</translation>
    </message>
    <message>
        <source>Unsupported request</source>
        <translation>Anfrage nicht unterstützt</translation>
    </message>
</context>
<context>
    <name>bus::TrelanMessageReciever</name>
    <message>
        <source>Unknown request header: %1</source>
        <translation>Unbekannter Kopf der Anfrage: %1</translation>
    </message>
    <message>
        <source>Invalid request size</source>
        <translation>Ungültige Größe der Anfrage</translation>
    </message>
    <message>
        <source>Invalid request data</source>
        <translation>Ungültige Daten in der Anfrage</translation>
    </message>
    <message>
        <source>Incorrect reply data</source>
        <translation>Falsche Daten in der Antwort</translation>
    </message>
    <message>
        <source>Socket is empty</source>
        <translation>Keine Daten auf der Verbindung</translation>
    </message>
    <message>
        <source>Invalid request size: </source>
        <translation>Ungültige Größe der Anfrage: </translation>
    </message>
    <message>
        <source>Message repeating: </source>
        <translation>Wiederholte Nachricht: </translation>
    </message>
</context>
<context>
    <name>bus::TrelanQueryHandler</name>
    <message>
        <source>Socket wait for ready read error</source>
        <translation>Fehler beim Warten auf Daten der Verbindung</translation>
    </message>
    <message>
        <source>Socket is empty</source>
        <translation>Keine Daten auf der Verbindung</translation>
    </message>
    <message>
        <source>A reply that nobody has asked for</source>
        <translation>Eine Antwort, nach der niemand gefragt hat</translation>
    </message>
    <message>
        <source>Incorrect reply header: </source>
        <translation>Falscher Kopf der Antwort: </translation>
    </message>
    <message>
        <source>Incorrect reply data size %1 != %2</source>
        <translation>Falsche Datengröße der Antwort: %1 != %2</translation>
    </message>
</context>
</TS>
