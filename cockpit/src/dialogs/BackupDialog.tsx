import { Modal, ModalBody, ModalHeader } from "@patternfly/react-core";

export default function BackupDialog(props: { onClose: () => void }) {
  return (
    <Modal isOpen variant="medium" onClose={props.onClose} aria-labelledby="dialog-title">
      <ModalHeader title="BackupDialog" labelId="dialog-title" />
      <ModalBody />
    </Modal>
  );
}
